#include <array>
#include <bit>
#include <limits>

#include "modbasic.hpp"
#include "modsparse_coo.hpp"
#include "modsparse_io_detail.hpp"

// coosparse file, little-endian, no record markers:
//   int32    10                    format code
//   int32    dim1, dim2
//   int64    elements, nel
//   int32    lupperstorage         written 0 or 1; read: 0 false, 1 and -1 true, else an error
//   int32    ija[2 * nel]          row, column of slot 1, of slot 2, ...
//   float64  a[nel]

namespace zendar {

namespace {

constexpr std::int32_t format_code = 10;
constexpr std::int64_t chunk = std::int64_t{1} << 17;

/// Hands over pieces of at most `chunk` of n items: first item and count.
template <class Work>
void by_chunks(std::int64_t n, const Work& work) {
    for (std::int64_t begin = 0; begin < n; begin += chunk) work(begin, std::min(chunk, n - begin));
}

void read_keys(detail::matrix_reader& file, std::span<coo_slot> slots) {
    std::vector<std::int32_t> buffer(static_cast<std::size_t>(2 * std::min(chunk, std::ssize(slots))));
    by_chunks(std::ssize(slots), [&](std::int64_t begin, std::int64_t n) {
        file.read_values(std::span(buffer).first(2 * n));
        for (std::int64_t i = 0; i < n; ++i) {
            slots[begin + i].row = buffer[2 * i];
            slots[begin + i].col = buffer[2 * i + 1];
        }
    });
}

void read_slot_values(detail::matrix_reader& file, std::span<coo_slot> slots) {
    std::vector<double> buffer(static_cast<std::size_t>(std::min(chunk, std::ssize(slots))));
    by_chunks(std::ssize(slots), [&](std::int64_t begin, std::int64_t n) {
        file.read_values(std::span(buffer).first(n));
        for (std::int64_t i = 0; i < n; ++i) slots[begin + i].value = buffer[i];
    });
}

/// Occupied slots; free ones are cleared, as half a key or a value may stand there.
/// @returns their number, -1 when a key lies outside the matrix or its stored triangle.
std::int64_t count_keys(std::span<coo_slot> slots, std::int32_t dim1, std::int32_t dim2, bool upper) {
    std::int64_t filled = 0;
    for (coo_slot& slot : slots) {
        if (slot.row == 0 || slot.col == 0) {
            slot = {0, 0, 0.0};
            continue;
        }
        if (slot.row < 1 || slot.row > dim1 || slot.col < 1 || slot.col > dim2) return -1;
        if (upper && slot.row > slot.col) return -1;
        ++filled;
    }
    return filled;
}

/// The first occupied slot that its own key does not lead to, or the number of slots.
std::int64_t first_lost(std::span<const coo_slot> slots) {
    const std::int64_t n = std::ssize(slots);
    std::int64_t lost = n;
#pragma omp parallel for schedule(static) default(none) shared(slots, n) reduction(min : lost)
    for (std::int64_t s = 0; s < n; ++s) {
        const coo_slot& slot = slots[s];
        if (slot.row != 0 && hashf_array_getval(slot.row, slot.col, slots) != s + 1) lost = std::min(lost, s);
    }
    return lost;
}

}  // namespace

void coosparse::save(const std::filesystem::path& path) const {
    file_writer file;
    if (const auto failure = file.open(path)) fail(detail::cannot_write(path, *failure));
    detail::write_head(file, format_code, dim1_, dim2_, filled());
    detail::write_item(file, nel());
    detail::write_item(file, std::int32_t{lupperstorage_ ? 1 : 0});

    std::vector<std::int32_t> keys(static_cast<std::size_t>(2 * std::min(chunk, nel())));
    by_chunks(nel(), [&](std::int64_t begin, std::int64_t n) {
        for (std::int64_t i = 0; i < n; ++i) {
            keys[2 * i] = slots()[begin + i].row;
            keys[2 * i + 1] = slots()[begin + i].col;
        }
        file.write_values(std::span<const std::int32_t>(keys).first(2 * n));
    });
    std::vector<double> values(static_cast<std::size_t>(std::min(chunk, nel())));
    by_chunks(nel(), [&](std::int64_t begin, std::int64_t n) {
        for (std::int64_t i = 0; i < n; ++i) values[i] = slots()[begin + i].value;
        file.write_values(std::span<const double>(values).first(n));
    });
    if (const auto failure = file.commit()) fail(detail::cannot_write(path, *failure));
}

coosparse coosparse::load(const std::filesystem::path& path, logger* unlog) {
    detail::matrix_reader file(path, " ERROR: the proposed file is not a COO file", unlog);
    const auto head = file.read_head(format_code);
    const auto nel = file.read_item<std::int64_t>();
    const bool upper = file.read_logical();
    if (nel < 1 || !std::has_single_bit(static_cast<std::uint64_t>(nel)))
        file.reject("the number of slots is not a power of 2: " + inttochar(nel));
    if (head.elements > nel) file.reject("more elements than slots");
    if (!file.fits(nel, sizeof(coo_slot)) || file.rest() != nel * std::int64_t{sizeof(coo_slot)})
        file.reject("the number of slots does not agree with the size of the file: " + inttochar(nel));

    page_array<coo_slot> slots(nel);
    read_keys(file, slots.span());
    read_slot_values(file, slots.span());
    const std::int64_t filled = count_keys(slots.span(), head.dim1, head.dim2, upper);
    if (filled < 0) file.reject("a row or column number is outside the matrix");
    if (filled != head.elements)
        file.reject("it holds " + inttochar(filled) + " elements instead of " + inttochar(head.elements));
    const std::int64_t lost = first_lost(slots.span());
    if (lost < nel) file.reject("the element in slot " + inttochar(lost + 1) + " is not where it belongs");

    coosparse result;
    result.unlog_ = unlog;
    result.init("COO", head.dim1, head.dim2);
    result.lupperstorage_ = upper;
    result.adopt(std::move(slots), filled);
    return result;
}

}  // namespace zendar
