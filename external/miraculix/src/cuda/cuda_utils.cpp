#include "cuda_utils.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <string_view>

namespace miraculix::gpu {

namespace {

constexpr int oldest_driver = 10000;
constexpr std::size_t row_alignment = 16;  // what one asynchronous copy moves

std::string& kept_failure() {
    static std::string text;
    return text;
}

void write(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

std::string version_text(int version) {
    return std::to_string(version / 1000) + "." + std::to_string(version % 1000 / 10);
}

/// Whether the whole text, but for blanks around it, is a number.
bool read_number(std::string_view text, int& value) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return false;
    text = text.substr(first, text.find_last_not_of(' ') + 1 - first);
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

/// The place of a device in a list of numbers; -1 when it is not there. As the driver does, a negative number
/// ends the list.
int place_in_list(std::string_view list, int device) {
    for (int place = 0;; ++place) {
        const auto comma = list.find(',');
        int number = 0;
        if (read_number(list.substr(0, comma), number)) {
            if (number == device) return place;
            if (number < 0) return -1;
        }
        if (comma == std::string_view::npos) return -1;
        list.remove_prefix(comma + 1);
    }
}

constexpr std::size_t largest = std::numeric_limits<std::size_t>::max();
std::size_t product(std::size_t a, std::size_t b) {
    return a != 0 && b > largest / a ? largest : a * b;
}
std::size_t sum(std::size_t a, std::size_t b) {
    return b > largest - a ? largest : a + b;
}
std::size_t packed(std::int32_t n) {
    return (static_cast<std::size_t>(n) - 1) / 4 + 1;
}
std::size_t aligned(std::size_t bytes) {
    return (bytes + row_alignment - 1) / row_alignment * row_alignment;
}

std::string gigabytes(std::size_t bytes) {
    return std::to_string(bytes >> 30) + " GB";
}

}  // namespace

void print(const std::string& text) {
    write(stdout, text);
}

void debug_info(const std::string& text) {
    write(stdout, "\033[36m\t" + text + "\033[37m");
}

int failure(const std::string& text) {
    kept_failure() = text;
    write(stderr, text);
    return 1;
}

const std::string& last_failure() {
    return kept_failure();
}

int checkCuda(int driver, int runtime) {
    if (driver == 0) return failure("No CUDA driver detected.");
    if (driver < oldest_driver)
        return failure("Your CUDA driver is of version " + version_text(driver) +
                       ". CUDA driver versions below 10.0 are not supported.");
    if (driver < runtime)
        print("Warning: the CUDA driver is of version " + version_text(driver) +
              ", older than the CUDA runtime of version " + version_text(runtime) +
              ". Please upgrade the driver.");
    return 0;
}

int switchDevice(const char* cuda_device, const char* cuda_visible_devices, int& ordinal) {
    int device = 0;
    if (cuda_device != nullptr) {
        const std::string text = cuda_device;
        if (!read_number(text, device) || device < 0) {
            failure("Environment variable CUDA_DEVICE is set to '" + text +
                    "', which is not the number of a device.");
            return -1;
        }
        print("Environment variable CUDA_DEVICE is set to " + text + ", switching to device " +
              std::to_string(device) + ".");
    } else {
        print("Environment variable CUDA_DEVICE is not set, using device 0.");
    }
    if (cuda_visible_devices == nullptr) {
        failure(
            "There are no visible CUDA devices. Check if there is a device available or set the "
            "CUDA_VISIBLE_DEVICES variable");
        return -1;
    }
    const int place = place_in_list(cuda_visible_devices, device);
    if (place < 0) {
        failure("The requested device " + std::to_string(device) + " is not visible to the CUDA driver.");
        return -1;
    }
    ordinal = place;
    return 0;
}

int checkDevMemory(std::size_t required, std::size_t free, std::size_t total) {
    if (required <= free) return 0;
    return failure("CUDA Error: Not enough memory available. \nRequired " + gigabytes(required) + ", free " +
                   gigabytes(free) + ", total on device " + gigabytes(total) + " ");
}

int checkError(const char* where, int line, int status, const char* text) {
    if (status == 0) return 0;
    return failure(std::string("CUDA Error in ") + where + ", line " + std::to_string(line) + ": status " +
                   std::to_string(status) + (*text == '\0' ? "" : std::string(" (") + text + ")"));
}

object_sizes sizes_of(std::int32_t snps, std::int32_t individuals, std::int32_t maxn, std::size_t partials) {
    const auto s = static_cast<std::size_t>(snps), i = static_cast<std::size_t>(individuals);
    const std::size_t longer = std::max(s, i), real = sizeof(double);
    object_sizes sizes{};
    sizes.bytes_i = packed(individuals);
    sizes.bytes_s = packed(snps);
    sizes.pitch_i = aligned(sizes.bytes_i);
    sizes.pitch_s = aligned(sizes.bytes_s);
    sizes.size = product(static_cast<std::size_t>(maxn), 4 * packed(std::max(snps, individuals)));
    sizes.required =
        sum(sum(product(i, sizes.bytes_s), product(s, sizes.bytes_i)), product(3 * real, sizes.size));
    const std::size_t packed_bytes = sum(product(i, sizes.pitch_s), product(s, sizes.pitch_i));
    const std::size_t work = sum(product(2, sizes.size), elements_of_c(sizes.size, maxn, partials));
    sizes.allocated = sum(packed_bytes, product(real, sum(work, s + longer)));
    return sizes;
}

std::size_t elements_of_c(std::size_t size, std::int32_t maxn, std::size_t partials) {
    return std::max(size, sum(static_cast<std::size_t>(maxn), partials));
}

std::int32_t maxn_of(std::uint64_t size, std::int32_t snps, std::int32_t individuals) {
    return static_cast<std::int32_t>(size / (4 * packed(std::max(snps, individuals))));
}

int check_object(const void* plink, const void* plink_transposed, std::int32_t snps, std::int32_t individuals,
                 const void* f, std::int32_t maxn) {
    if (snps < 1 || individuals < 1)
        return failure("There are " + std::to_string(snps) + " SNPs and " + std::to_string(individuals) +
                       " individuals; both must be positive.");
    if (maxn < 1)
        return failure("The largest number of columns is " + std::to_string(maxn) + "; it must be positive.");
    if (plink == nullptr || plink_transposed == nullptr || f == nullptr)
        return failure("The GPU needs the genotypes in both orientations and the frequencies.");
    return 0;
}

int check_product(std::int64_t k, std::int32_t n, std::int32_t maxn, const void* b, std::int64_t ldb,
                  const void* c) {
    if (n < 0 || n > maxn)
        return failure("The product has " + std::to_string(n) +
                       " columns, but the work arrays on the device have room for " + std::to_string(maxn) +
                       ".");
    if (ldb < k)
        return failure("The leading dimension of the right-hand side is " + std::to_string(ldb) +
                       ", but it has " + std::to_string(k) + " rows.");
    if (n > 0 && (b == nullptr || c == nullptr)) return failure("The product lacks its matrices.");
    return 0;
}

}  // namespace miraculix::gpu
