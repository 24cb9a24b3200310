#include "modsparse_pages.hpp"

#include <sys/mman.h>

#include <cstdlib>

namespace zendar::detail {

namespace {

constexpr std::size_t page = std::size_t{2} << 20;
constexpr std::size_t smallest_mapping = page;

std::size_t whole_pages(std::size_t bytes) {
    return (bytes + page - 1) / page * page;
}

}  // namespace

void* allocate_pages(std::size_t bytes) {
    if (bytes < smallest_mapping) {
        void* data = std::calloc(bytes, 1);
        if (data == nullptr) throw std::bad_alloc();
        return data;
    }
    // One page more than needed: what lies before and behind the aligned part is given back at once.
    const std::size_t wanted = whole_pages(bytes);
    const std::size_t mapped = wanted + page;
    void* raw = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    char* begin = static_cast<char*>(raw);
    const std::size_t head = (page - reinterpret_cast<std::uintptr_t>(begin) % page) % page;
    if (head > 0) ::munmap(begin, head);
    if (head < page) ::munmap(begin + head + wanted, page - head);
    ::madvise(begin + head, wanted, MADV_HUGEPAGE);  // a wish only: the memory serves without it
    return begin + head;
}

void free_pages(void* data, std::size_t bytes) noexcept {
    if (bytes < smallest_mapping)
        std::free(data);
    else
        ::munmap(data, whole_pages(bytes));
}

}  // namespace zendar::detail
