#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <vector>

namespace zendar {
namespace {

/// The flags of the mapping in which an address lies.
std::string flags_at(const void* address) {
    std::ifstream maps("/proc/self/smaps");
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    bool inside = false;
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t begin = 0, end = 0;
        char dash = 0;
        std::istringstream words(line);
        if (words >> std::hex >> begin >> dash >> end && dash == '-') inside = begin <= at && at < end;
        if (inside && line.starts_with("VmFlags:")) return line + " ";
    }
    return {};
}

bool kernel_has_huge_pages() {
    return std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled").good();
}

TEST(HugePages, AreAskedForLargeArrays) {
    if (!kernel_has_huge_pages()) GTEST_SKIP() << "the kernel has no transparent huge pages";
    const std::vector<double> large(3 << 20);
    EXPECT_NE(flags_at(&large[large.size() / 2]).find(" hg "), std::string::npos);
}

TEST(HugePages, AreNotAskedForSmallOnes) {
    const auto small = std::make_unique<std::vector<double>>(1 << 16);
    EXPECT_FALSE(flags_at(small->data()).empty());
    EXPECT_EQ(flags_at(small->data()).find(" hg "), std::string::npos);
}

TEST(HugePages, KeepWhatNewPromises) {
    std::size_t size = std::numeric_limits<std::size_t>::max() / 4;  // no constant, which a compiler refuses
    EXPECT_THROW(::operator delete(::operator new(size)), std::bad_alloc);
    EXPECT_EQ(::operator new(size, std::nothrow), nullptr);
    void *const a = ::operator new(0), *const b = ::operator new(0);
    EXPECT_NE(a, b);
    ::operator delete(a);
    ::operator delete(b);

    static void* reserve = nullptr;
    reserve = ::operator new(1);
    const std::new_handler before = std::set_new_handler([] {
        if (reserve == nullptr) throw std::bad_alloc();
        ::operator delete(reserve);
        reserve = nullptr;
    });
    EXPECT_THROW(::operator delete(::operator new(size)), std::bad_alloc);
    EXPECT_EQ(reserve, nullptr);
    std::set_new_handler(before);
}

}  // namespace
}  // namespace zendar
