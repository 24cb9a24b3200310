#include "store.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <string>

#include "reports.hpp"
#include "tables.hpp"

namespace miraculix {

namespace {

constexpr std::array<const char*, 33> coding_names = {
    "AutoCoding", "1bit",     "2bit",         "3bit",      "plink",   "5codes8", "orig.plink",
    "unused7",    "unused8",  "unused9",      "2bit4",     "2bit8",   "2bit16",  "2bit32",
    "2bit32-T",   "unused15", "unused16",     "1bit-H",    "2bit-H",  "1bit8-H", "1bit32-H",
    "1-1-bit32",  "2bit64-H", "1-1-bit32-T",  "2bit64-HT", "dotfile", "filedot", "anyGeno",
    "5codes8-T",  "2bit-T",   "orig.plink-T", "plink-T",   "unknown"};

constexpr std::size_t cache_line = 64;
constexpr std::size_t large_page = std::size_t{2} << 20;

}  // namespace

const char* coding_name(coding_type coding) {
    const auto code = static_cast<std::size_t>(coding);
    return code < coding_names.size() ? coding_names[code] : coding_names.back();
}

std::int64_t fctnLDAalignBitSnps(std::int64_t bits, std::int64_t align) {
    check(align >= 32 && align % 32 == 0, "fctnLDAalignBitSnps");
    return (bits + align - 1) / align * (align / 32);
}

std::int64_t LdaFiveCodes(std::int64_t columns, std::int64_t align) {
    return fctnLDAalignBitSnps(8 * columns, align);
}

std::uint8_t* Align(std::uint8_t* data, std::size_t alignment) {
    const auto address = reinterpret_cast<std::uintptr_t>(data);
    return data + (alignment - address % alignment) % alignment;
}

coded_matrix::coded_matrix(coding_type coding, std::int64_t units, std::int64_t columns)
    : coding_(coding),
      units_(units),
      nrow_((units + genotypes_per_byte - 1) / genotypes_per_byte),
      ncol_(columns),
      lda_(4 * LdaFiveCodes(columns)) {
    // The kernels read 8 bytes at a time and take the columns of a block from a multiple of 8 on.
    check(lda_ % 8 == 0, "coded_matrix");
    const auto size = static_cast<std::size_t>(bytes());
    const bool large = size >= large_page;
    const std::size_t alignment = large ? large_page : cache_line, wanted = size + alignment;
    void* const memory =
        large ? ::mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
              : std::malloc(wanted);
    if (memory == nullptr || memory == MAP_FAILED)
        severe_error("CompleteCodeVector", "Not enough memory: " + std::to_string(bytes()) + " bytes for " +
                                               std::to_string(units) + " x " + std::to_string(columns) +
                                               " genotypes in the coding '" + coding_name(coding) + "'.");
    memory_ = {static_cast<std::uint8_t*>(memory), release{large ? wanted : 0}};
    data_ = Align(memory_.get(), alignment);
    if (large) ::madvise(data_, size, MADV_HUGEPAGE);  // a wish only: the memory serves without it
}

void coded_matrix::release::operator()(std::uint8_t* memory) const {
    if (mapped > 0)
        ::munmap(memory, mapped);
    else
        std::free(memory);
}

std::unique_ptr<compressed_store> plinkToSxI(const std::uint8_t* plink, std::int32_t snps,
                                             std::int32_t individuals, const double* freq,
                                             std::int32_t cores) {
    static_assert(five_code_values <= 256, "5 codes go into a byte");
    static_assert(genotypes_per_plink_byte * bits_per_plink_code == 8,
                  "4 codes of 2 bits go into a PLINK byte");
    try {
        auto store = std::make_unique<compressed_store>(
            compressed_store{snps,
                             individuals,
                             coded_matrix(coding_type::five_codes8, individuals, snps),
                             coded_matrix(coding_type::five_codes8_T, snps, individuals),
                             {},
                             {}});
        fill_five_codes(plink, store->five, cores);
        fill_five_codes_transposed(plink, *store->transposed, cores);
        if (freq != nullptr)
            store->freq.assign(freq, freq + snps);
        else
            store->freq = getFreq(*store, cores);
        return store;
    } catch (const std::bad_alloc&) {
        severe_error("plinkToSxI",
                     "Not enough memory for the frequencies of " + std::to_string(snps) + " SNPs.");
    }
}

}  // namespace miraculix
