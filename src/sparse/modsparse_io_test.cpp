#include <cstring>
#include <fstream>
#include <limits>
#include <random>

#include "modsparse.hpp"
#include "modsparse_test_support.hpp"
#include "program_run.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

const std::string not_coo = " ERROR: the proposed file is not a COO file";
const std::string not_crs = " ERROR: the proposed file is not a CRS file";
const std::string not_crs64 = " ERROR: the proposed file is not a CRS64 file";

template <class T>
void append(std::string& bytes, const T& value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

template <class T>
void overwrite(std::string& bytes, std::size_t offset, const T& value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

coosparse random_coo(std::int32_t n, std::int32_t m, bool upper) {
    random_elements random(41);
    coosparse coo(n, m, 8, upper);
    random.fill(n, m, upper, [&](auto i, auto j, double v) { coo.add(i, j, v); });
    return coo;
}

// ---- coosparse -------------------------------------------------------------------------------------------

TEST(CooFile, HoldsHeadKeysAndValues) {
    const temporary_directory directory;
    coosparse coo(3, 4, 2, true);
    coo.set(1, 2, 2.5);
    coo.save(directory / "m.stream");

    std::string expected;
    append(expected, std::int32_t{10});
    append(expected, std::int32_t{3});
    append(expected, std::int32_t{4});
    append(expected, std::int64_t{1});
    append(expected, std::int64_t{2});
    append(expected, std::int32_t{1});
    for (const coo_slot& slot : coo.slots()) append(expected, slot.row), append(expected, slot.col);
    for (const coo_slot& slot : coo.slots()) append(expected, slot.value);
    EXPECT_EQ(directory.read("m.stream"), expected);
}

TEST(CooFile, IsReadBackByteForByte) {
    const temporary_directory directory;
    for (const auto& [n, m] : {std::pair{0, 0}, {1, 1}, {50, 50}, {50, 9}}) {
        for (const bool upper : {false, true}) {
            const coosparse coo = random_coo(n, m, upper);
            coo.save(directory / "a");

            const coosparse loaded = coosparse::load(directory / "a");
            loaded.save(directory / "b");

            EXPECT_EQ(directory.read("a"), directory.read("b"));
            EXPECT_EQ(dense(loaded), dense(coo));
            EXPECT_EQ(loaded.isupperstorage(), upper);
            EXPECT_EQ(loaded.totalnumberofelements(), coo.totalnumberofelements());
            EXPECT_EQ(loaded.namemat(), "COO");
        }
    }
}

TEST(CooFile, IsReadBackWhenItIsLongerThanABuffer) {
    const temporary_directory directory;
    coosparse coo(1000, 1000, 1 << 18);
    for (std::int32_t k = 0; k < 150000; ++k) coo.add(k % 1000 + 1, k / 1000 + 1, k + 1.0);
    coo.save(directory / "a");

    const coosparse loaded = coosparse::load(directory / "a");
    loaded.save(directory / "b");

    EXPECT_EQ(directory.read("a"), directory.read("b"));
    EXPECT_EQ(loaded.get(17, 100), coo.get(17, 100));
}

TEST(CooFile, GoesOnGrowingWhenItIsLoaded) {
    const temporary_directory directory;
    coosparse coo(200, 200, 128);
    for (std::int32_t i = 1; i <= 102; ++i) coo.add(i, i, i);
    coo.save(directory / "a");
    coosparse loaded = coosparse::load(directory / "a");

    coo.add(103, 1, 1.0);
    loaded.add(103, 1, 1.0);

    coo.save(directory / "a");
    loaded.save(directory / "b");
    EXPECT_EQ(loaded.nel(), 256);
    EXPECT_EQ(directory.read("a"), directory.read("b"));
}

TEST(CooFile, LogicalsOfBothKindsAreRead) {
    const temporary_directory directory;
    random_coo(4, 4, true).save(directory / "a");
    std::string bytes = directory.read("a");
    for (const auto& [value, upper] : {std::pair{1, true}, {-1, true}, {0, false}}) {
        overwrite(bytes, 28, std::int32_t{value});
        directory.write("b", bytes);
        EXPECT_EQ(coosparse::load(directory / "b").isupperstorage(), upper);
    }
    for (const std::int32_t value : {2, -2, 255, 16777216}) {
        overwrite(bytes, 28, value);
        directory.write("b", bytes);
        expect_fatal([&] { (void)coosparse::load(directory / "b"); }, not_coo);
    }
}

TEST(CooFile, OfAnotherCodeIsRefused) {
    const temporary_directory directory;
    unit u;
    convertfromcootocrs(random_coo(4, 4, true)).save(directory / "crs");
    directory.write("empty", "");

    expect_fatal([&] { (void)coosparse::load(directory / "crs", &u.log); }, not_coo);
    EXPECT_EQ(u.text(), not_coo + "\n");
    expect_fatal([&] { (void)coosparse::load(directory / "empty"); }, not_coo);
}

TEST(CooFile, ThatDoesNotExistIsNamed) {
    const temporary_directory directory;
    const auto path = directory / "none";
    const std::string text =
        " ERROR: the file " + path.string() + " cannot be opened: No such file or directory";
    expect_fatal([&] { (void)coosparse::load(path); }, text);
    expect_fatal([&] { (void)crssparse::load(path); }, text);
    expect_fatal([&] { (void)crssparse64::load(path); }, text);
}

TEST(CooFile, WithSizesThatDoNotFitIsRefused) {
    const temporary_directory directory;
    random_coo(4, 4, false).save(directory / "a");
    const std::string bytes = directory.read("a");
    const auto refuse = [&](std::size_t offset, auto value, const std::string& reason) {
        unit u;
        u.log.configure({.max_width = 1000});
        std::string changed = bytes;
        overwrite(changed, offset, value);
        directory.write("b", changed);
        expect_fatal([&] { (void)coosparse::load(directory / "b", &u.log); }, not_coo);
        EXPECT_EQ(u.text(), " " + (directory / "b").string() + ": " + reason + "\n" + not_coo + "\n");
    };
    refuse(4, std::int32_t{-1}, "a dimension is negative");
    refuse(4, std::int32_t{2}, "a row or column number is outside the matrix");
    refuse(12, std::int64_t{-1}, "the number of elements is negative");
    refuse(12, std::int64_t{1}, "it holds 5 elements instead of 1");
    refuse(12, std::int64_t{17}, "more elements than slots");
    refuse(20, std::int64_t{0}, "the number of slots is not a power of 2: 0");
    refuse(20, std::int64_t{-8}, "the number of slots is not a power of 2: -8");
    refuse(20, std::int64_t{9}, "the number of slots is not a power of 2: 9");
    for (const int power : {4, 31, 40, 60, 62}) {
        const std::int64_t nel = std::int64_t{1} << power;
        refuse(20, nel,
               "the number of slots does not agree with the size of the file: " + std::to_string(nel));
    }
    refuse(28, std::int32_t{1}, "a row or column number is outside the matrix");
}

TEST(CooFile, WithAnElementThatIsNotWhereItBelongsIsRefused) {
    const temporary_directory directory;
    coosparse coo(9, 9, 128);
    coo.set(1, 1, 1.0);  // slot 82
    coo.save(directory / "a");
    std::string bytes = directory.read("a");
    overwrite(bytes, 32 + 8 * 81, std::int32_t{2});
    directory.write("b", bytes);
    unit u;
    u.log.configure({.max_width = 1000});

    expect_fatal([&] { (void)coosparse::load(directory / "b", &u.log); }, not_coo);

    EXPECT_THAT(u.text(), ::testing::HasSubstr("the element in slot 82 is not where it belongs"));
}

TEST(CooFile, TakesASlotWithHalfAZeroKeyAsFree) {
    const temporary_directory directory;
    coosparse coo(9, 9, 128);
    coo.set(1, 1, 1.0);
    coo.save(directory / "a");
    std::string bytes = directory.read("a");
    overwrite(bytes, 12, std::int64_t{0});
    overwrite(bytes, 32 + 8 * 81, std::int32_t{0});
    directory.write("b", bytes);

    coosparse loaded = coosparse::load(directory / "b");
    EXPECT_EQ(loaded.totalnumberofelements(), 0);
    loaded.add(1, 1, 2.0);
    EXPECT_EQ(loaded.get(1, 1), 2.0);
}

// ---- crssparse and crssparse64 ---------------------------------------------------------------------------

TEST(CrsFile, HoldsHeadPointersColumnsAndValues) {
    const temporary_directory directory;
    coosparse coo(2, 3, 8, true);
    coo.add(1, 2, 2.5);
    convertfromcootocrs(coo).save(directory / "m32");
    convertfromcootocrs64(coo).save(directory / "m64");

    std::string head, expected;
    append(head, std::int32_t{2});
    append(head, std::int32_t{3});
    append(head, std::int64_t{3});
    append(head, std::int32_t{1});
    append(expected, std::int32_t{20});
    expected += head;
    for (const std::int32_t value : {1, 3, 4, 2, 3, 3}) append(expected, value);
    for (const double value : {2.5, 0.0, 0.0}) append(expected, value);
    EXPECT_EQ(directory.read("m32"), expected);
    expected.clear();
    append(expected, std::int32_t{21});
    expected += head;
    for (const std::int64_t value : {1, 3, 4, 2, 3, 3}) append(expected, value);
    for (const double value : {2.5, 0.0, 0.0}) append(expected, value);
    EXPECT_EQ(directory.read("m64"), expected);
}

TEST(CrsFile, IsReadBackByteForByte) {
    const temporary_directory directory;
    for (const auto& [n, m] : {std::pair{0, 0}, {1, 1}, {50, 50}, {50, 9}, {3, 0}}) {
        for (const bool upper : {false, true}) {
            const coosparse coo = random_coo(n, m, upper);
            convertfromcootocrs(coo).save(directory / "a32");
            convertfromcootocrs64(coo).save(directory / "a64");

            const crssparse loaded = crssparse::load(directory / "a32");
            const crssparse64 loaded64 = crssparse64::load(directory / "a64");
            loaded.save(directory / "b32");
            loaded64.save(directory / "b64");

            EXPECT_EQ(directory.read("a32"), directory.read("b32"));
            EXPECT_EQ(directory.read("a64"), directory.read("b64"));
            EXPECT_EQ(dense(loaded), dense(coo));
            EXPECT_EQ(dense(loaded64), dense(coo));
            EXPECT_TRUE(loaded.issorted() && loaded64.issorted());
            EXPECT_EQ(loaded.isupperstorage(), upper);
            EXPECT_FALSE(loaded.issymmetric());
        }
    }
}

TEST(CrsFile, OfAnotherCodeIsRefused) {
    const temporary_directory directory;
    const coosparse coo = random_coo(4, 4, true);
    coo.save(directory / "coo");
    convertfromcootocrs(coo).save(directory / "crs");
    convertfromcootocrs64(coo).save(directory / "crs64");
    unit u;

    expect_fatal([&] { (void)crssparse64::load(directory / "crs", &u.log); }, not_crs64);
    EXPECT_EQ(u.text(), not_crs64 + "\n");
    expect_fatal([&] { (void)crssparse::load(directory / "crs64"); }, not_crs);
    expect_fatal([&] { (void)crssparse::load(directory / "coo"); }, not_crs);
}

TEST(CrsFile, LogicalsOfBothKindsAreRead) {
    const temporary_directory directory;
    convertfromcootocrs(random_coo(4, 4, true)).save(directory / "a");
    std::string bytes = directory.read("a");
    overwrite(bytes, 20, std::int32_t{-1});
    directory.write("b", bytes);
    EXPECT_TRUE(crssparse::load(directory / "b").isupperstorage());
    overwrite(bytes, 20, std::int32_t{7});
    directory.write("b", bytes);
    expect_fatal([&] { (void)crssparse::load(directory / "b"); }, not_crs);
}

TEST(CrsFile, WithArraysThatAreNoRowsIsRefused) {
    const temporary_directory directory;
    coosparse coo(2, 2, 8, true);
    coo.add(1, 2, 1.0);
    convertfromcootocrs(coo).save(directory / "a");  // ia = 1 3 4, ja = 1 2 2
    const std::string bytes = directory.read("a");
    const auto refuse = [&](std::size_t offset, auto value, const std::string& reason) {
        unit u;
        u.log.configure({.max_width = 1000});
        std::string changed = bytes;
        overwrite(changed, offset, value);
        directory.write("b", changed);
        expect_fatal([&] { (void)crssparse::load(directory / "b", &u.log); }, not_crs);
        EXPECT_EQ(u.text(), " " + (directory / "b").string() + ": " + reason + "\n" + not_crs + "\n");
    };
    const std::string pointers = "the row pointers are not in order";
    const std::string columns = "a column number is outside the matrix";
    refuse(24, std::int32_t{0}, pointers);
    refuse(28, std::int32_t{5}, pointers);
    refuse(28, std::int32_t{-5}, pointers);
    refuse(32, std::int32_t{2147483647}, pointers);
    refuse(36, std::int32_t{0}, columns);
    refuse(40, std::int32_t{3}, columns);
    refuse(44, std::int32_t{1}, columns);  // below the diagonal
    refuse(4, std::int32_t{-2}, "a dimension is negative");
    refuse(12, std::int64_t{-2}, "the number of elements is negative");
    const auto sizes = [](std::int64_t n) {
        return "the number of elements does not agree with the size of the file: " + std::to_string(n);
    };
    refuse(4, std::int32_t{2147483647}, sizes(3));
    for (const int power : {31, 60, 62})
        refuse(12, std::int64_t{1} << power, sizes(std::int64_t{1} << power));
}

// ---- every loader, damaged files -------------------------------------------------------------------------

struct format {
    const char* name;
    void (*save)(const coosparse&, const std::filesystem::path&);
    void (*load)(const std::filesystem::path&, const std::filesystem::path& again);
    const std::string& refusal;
    std::size_t head;
};

template <class Matrix>
void load_and_use(const std::filesystem::path& path, const std::filesystem::path& again) {
    Matrix m = Matrix::load(path);
    (void)m.get(1, 1);
    (void)m.get(m.getdim(1), m.getdim(2));
    m.add(1, 1, 1.0);
    m.save(again);
}

class DamagedFile : public ::testing::TestWithParam<format> {};
class SavedFile : public ::testing::TestWithParam<format> {};

TEST_P(DamagedFile, IsRefusedWhenItEndsEarlyOrLate) {
    const temporary_directory directory;
    GetParam().save(random_coo(6, 6, true), directory / "a");
    const std::string bytes = directory.read("a");
    ASSERT_GT(bytes.size(), GetParam().head);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        SCOPED_TRACE(size);
        directory.write("b", bytes.substr(0, size));
        expect_fatal([&] { GetParam().load(directory / "b", directory / "c"); }, GetParam().refusal);
    }
    directory.write("b", bytes + '\0');
    expect_fatal([&] { GetParam().load(directory / "b", directory / "c"); }, GetParam().refusal);
}

/// The number of elements and, in the coordinate store's file, the number of slots behind it.
TEST_P(DamagedFile, IsRefusedWithHugeSizes) {
    const temporary_directory directory;
    for (const std::int32_t n : {0, 1, 6}) {
        GetParam().save(random_coo(n, n, true), directory / "a");
        const std::string bytes = directory.read("a");
        for (std::size_t offset = 12; offset + 8 < GetParam().head; offset += 8) {
            for (const std::int64_t size :
                 {std::int64_t{1} << 31, std::int64_t{1} << 32, std::int64_t{1} << 60, std::int64_t{1} << 61,
                  std::int64_t{1} << 62, std::numeric_limits<std::int64_t>::max(),
                  std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}}) {
                SCOPED_TRACE(testing::Message() << n << ' ' << offset << ' ' << size);
                std::string changed = bytes;
                overwrite(changed, offset, size);
                directory.write("b", changed);
                expect_fatal([&] { GetParam().load(directory / "b", directory / "c"); }, GetParam().refusal);
            }
        }
    }
}

/// Another program loads a file and saves it again, which gives the same bytes.
TEST_P(SavedFile, IsReadBackByteForByteInASecondProcess) {
    const temporary_directory directory;
    for (const std::int32_t n : {0, 1, 60}) {
        const coosparse coo = random_coo(n, n, true);
        GetParam().save(coo, directory / "a");

        const program_result copied =
            run_program(directory.path(), {GetParam().name, "a", "b"}, program_file("sparse_copy"));

        ASSERT_EQ(copied.status, 0) << copied.error;
        EXPECT_EQ(directory.read("a"), directory.read("b"));
        std::string values;
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t j = 1; j <= n; ++j)
                if (coo.get(i, j) != 0.0) append(values, coo.get(i, j));
        EXPECT_EQ(directory.read("b.values"), values);
    }
}

/// A changed byte gives either the family's error or, among the values, another sound matrix.
TEST_P(DamagedFile, NeverDoesHarmWithRandomBytes) {
    const temporary_directory directory;
    GetParam().save(random_coo(6, 6, true), directory / "a");
    const std::string bytes = directory.read("a");
    std::mt19937 generator(77);
    std::uniform_int_distribution<std::size_t> position(0, bytes.size() - 1), in_head(0, GetParam().head - 1);
    std::uniform_int_distribution<int> byte(0, 255);
    int refused = 0;
    for (int k = 0; k < 600; ++k) {
        std::string changed = bytes;
        for (int flips = 0; flips <= k % 4; ++flips)
            changed[k % 2 == 0 ? position(generator) : in_head(generator)] =
                static_cast<char>(byte(generator));
        directory.write("b", changed);
        try {
            GetParam().load(directory / "b", directory / "c");
        } catch (const fatal_error& error) {
            EXPECT_EQ(error.what(), GetParam().refusal);
            ++refused;
        }
    }
    EXPECT_GT(refused, 300);
}

const format formats[] = {
    {"coo", [](const coosparse& m, const auto& path) { m.save(path); }, load_and_use<coosparse>, not_coo, 32},
    {"crs", [](const coosparse& m, const auto& path) { convertfromcootocrs(m).save(path); },
     load_and_use<crssparse>, not_crs, 24},
    {"crs64", [](const coosparse& m, const auto& path) { convertfromcootocrs64(m).save(path); },
     load_and_use<crssparse64>, not_crs64, 24},
};
INSTANTIATE_TEST_SUITE_P(AllFormats, DamagedFile, ::testing::ValuesIn(formats),
                         [](const auto& info) { return std::string(info.param.name); });
INSTANTIATE_TEST_SUITE_P(AllFormats, SavedFile, ::testing::ValuesIn(formats),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Save, NamesAFileThatCannotBeWritten) {
    const temporary_directory directory;
    const auto path = directory / "missing" / "m.stream";
    const std::string text =
        " ERROR: the file " + path.string() + " cannot be written: No such file or directory";
    const coosparse coo = random_coo(2, 2, false);
    expect_fatal([&] { coo.save(path); }, text);
    expect_fatal([&] { convertfromcootocrs(coo).save(path); }, text);
    expect_fatal([&] { convertfromcootocrs64(coo).save(path); }, text);
}

}  // namespace
}  // namespace zendar::test
