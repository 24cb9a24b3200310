#include "modfile.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "temporary_directory.hpp"

namespace zendar {
namespace {

namespace fs = std::filesystem;
using test::temporary_directory;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::vector<std::string> lines_of(text_reader& reader) {
    std::vector<std::string> lines;
    while (const auto line = reader.line()) lines.emplace_back(*line);
    return lines;
}

std::vector<std::string> names_in(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    return names;
}

TEST(TextReader, ReadsLineByLineAndCounts) {
    const temporary_directory here;
    const auto file = here.write("a.txt", "one\n\n three \n");
    text_reader reader;

    ASSERT_EQ(reader.open(file), std::nullopt);
    EXPECT_EQ(reader.line_number(), 0);
    EXPECT_EQ(reader.line(), "one");
    EXPECT_EQ(reader.line_number(), 1);
    EXPECT_EQ(reader.line(), "");
    EXPECT_EQ(reader.line(), " three ");
    EXPECT_EQ(reader.line_number(), 3);
    EXPECT_EQ(reader.line(), std::nullopt);
    EXPECT_EQ(reader.line(), std::nullopt);
    EXPECT_EQ(reader.line_number(), 3);
    EXPECT_EQ(reader.error(), std::nullopt);
    EXPECT_EQ(reader.name(), file.string());
}

TEST(TextReader, TakesTheLastLineWithoutALineFeed) {
    text_reader reader;
    reader.open_text("a\nb", "text");

    EXPECT_THAT(lines_of(reader), ElementsAre("a", "b"));
    EXPECT_EQ(reader.name(), "text");
}

TEST(TextReader, FindsNoLineInAnEmptyFile) {
    const temporary_directory here;
    text_reader reader;

    ASSERT_EQ(reader.open(here.write("a.txt", "")), std::nullopt);
    EXPECT_EQ(reader.line(), std::nullopt);

    reader.open_text("", "text");
    EXPECT_EQ(reader.line(), std::nullopt);

    reader.open_text("\n", "text");
    EXPECT_THAT(lines_of(reader), ElementsAre(""));
}

TEST(TextReader, TakesOffOneCarriageReturnBeforeTheLineFeed) {
    text_reader reader;
    reader.open_text("a\r\n\r\nb\r\r\nc\rd\ne\r", "text");

    EXPECT_THAT(lines_of(reader), ElementsAre("a", "", "b\r", "c\rd", "e"));
}

TEST(TextReader, PassesOverAByteOrderMarkAtTheStartOnly) {
    const temporary_directory here;
    text_reader reader;

    ASSERT_EQ(reader.open(here.write("a.txt", "\xEF\xBB\xBFone\n\xEF\xBB\xBFtwo\n")), std::nullopt);
    EXPECT_THAT(lines_of(reader), ElementsAre("one", "\xEF\xBB\xBFtwo"));
    reader.rewind();
    EXPECT_EQ(reader.line(), "one");

    reader.open_text("\xEF\xBB\xBF", "mark alone");
    EXPECT_EQ(reader.line(), std::nullopt);
    reader.open_text("\xEF\xBB", "part of a mark");
    EXPECT_EQ(reader.line(), "\xEF\xBB");
}

TEST(TextReader, PassesNulCharactersThrough) {
    text_reader reader;
    reader.open_text(std::string("a\0b\n\0\n", 6), "text");

    EXPECT_THAT(lines_of(reader), ElementsAre(std::string("a\0b", 3), std::string("\0", 1)));
}

TEST(TextReader, ReadsLinesOfAnyLength) {
    const temporary_directory here;
    std::vector<std::string> expected;
    std::string text;
    for (const std::size_t size : {3U, 262'143U, 262'144U, 262'145U, 1U, 5'000'000U, 0U, 131'072U, 7U}) {
        expected.push_back(std::string(size, static_cast<char>('a' + expected.size())));
        text += expected.back() + "\n";
    }
    text_reader reader;

    ASSERT_EQ(reader.open(here.write("a.txt", text)), std::nullopt);

    EXPECT_TRUE(lines_of(reader) == expected);
    reader.rewind();
    EXPECT_TRUE(lines_of(reader) == expected);
}

TEST(TextReader, ReadsManyLinesAcrossItsBuffer) {
    const temporary_directory here;
    std::string text;
    for (int i = 1; i <= 200'000; ++i) text += std::to_string(i) + (i % 3 == 0 ? "\r\n" : "\n");
    text_reader reader;
    ASSERT_EQ(reader.open(here.write("a.txt", text)), std::nullopt);

    for (int i = 1; i <= 200'000; ++i) {
        ASSERT_EQ(reader.line(), std::to_string(i));
        if (i % 7 == 0) {
            reader.backspace();
            ASSERT_EQ(reader.line(), std::to_string(i));
        }
        ASSERT_EQ(reader.line_number(), i);
    }
    EXPECT_EQ(reader.line(), std::nullopt);
}

TEST(TextReader, StopsAtALineThatIsNoText) {
    text_reader reader;
    ASSERT_EQ(reader.open("/dev/zero"), std::nullopt);

    EXPECT_EQ(reader.line(), std::nullopt);

    ASSERT_TRUE(reader.error());
    EXPECT_EQ(reader.error()->iostat, EOVERFLOW);
    EXPECT_EQ(reader.error()->iomsg, "A line has more than 268435456 characters");
}

TEST(TextReader, ReturnsTheLastLineOnceMoreAfterBackspace) {
    text_reader reader;
    reader.open_text("a\nb\n", "text");

    reader.backspace();  // before the first line there is none to return
    EXPECT_EQ(reader.line(), "a");
    reader.backspace();
    reader.backspace();
    EXPECT_EQ(reader.line(), "a");
    EXPECT_EQ(reader.line_number(), 1);
    EXPECT_EQ(reader.line(), "b");
    EXPECT_EQ(reader.line(), std::nullopt);
    reader.backspace();
    EXPECT_EQ(reader.line(), "b");
    EXPECT_EQ(reader.line(), std::nullopt);
}

TEST(TextReader, RewindsAtAnyPlace) {
    const temporary_directory here;
    text_reader reader;
    ASSERT_EQ(reader.open(here.write("a.txt", "a\nb\n")), std::nullopt);

    EXPECT_EQ(reader.line(), "a");
    reader.backspace();
    reader.rewind();
    EXPECT_EQ(reader.line_number(), 0);
    EXPECT_THAT(lines_of(reader), ElementsAre("a", "b"));
    reader.rewind();
    EXPECT_THAT(lines_of(reader), ElementsAre("a", "b"));
}

TEST(TextReader, TellsWhyAFileCannotBeOpened) {
    const temporary_directory here;
    here.write("file", "text");
    text_reader reader;

    const auto missing = reader.open(here / "missing");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->iostat, ENOENT);
    EXPECT_EQ(missing->iomsg, "No such file or directory");
    EXPECT_EQ(reader.line(), std::nullopt);
    EXPECT_EQ(reader.name(), (here / "missing").string());

    const auto directory = reader.open(here.path());
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->iostat, EISDIR);
    EXPECT_EQ(directory->iomsg, "Is a directory");

    const auto below_a_file = reader.open(here / "file/x");
    ASSERT_TRUE(below_a_file);
    EXPECT_EQ(below_a_file->iostat, ENOTDIR);

    const auto nameless = reader.open("");
    ASSERT_TRUE(nameless);
    EXPECT_EQ(nameless->iostat, ENOENT);
}

TEST(TextReader, TellsAReadError) {
    text_reader reader;
    ASSERT_EQ(reader.open("/proc/self/mem"), std::nullopt);

    EXPECT_EQ(reader.line(), std::nullopt);

    ASSERT_TRUE(reader.error());
    EXPECT_EQ(reader.error()->iostat, EIO);
    EXPECT_EQ(reader.error()->iomsg, "Input/output error");
}

TEST(TextReader, ReadsAPipeOnceAndRewindsAShortOne) {
    const temporary_directory here;
    const fs::path pipe = here / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const auto feed = [&](const std::string& text) {
        return std::thread(
            [&pipe, text] { std::ofstream(pipe) << text.substr(0, 2) << std::flush << text.substr(2); });
    };
    {
        text_reader reader;
        std::thread first = feed("\xEF\xBB\xBFone\ntwo\n");
        ASSERT_EQ(reader.open(pipe), std::nullopt);
        EXPECT_EQ(reader.line(), "one");
        reader.rewind();
        EXPECT_THAT(lines_of(reader), ElementsAre("one", "two"));
        first.join();
    }  // a pipe still open here could be closed while the second thread writes to it

    std::string text;
    for (int i = 0; i < 200'000; ++i) text += "line\n";
    text_reader reader;
    std::thread second = feed(text);
    ASSERT_EQ(reader.open(pipe), std::nullopt);
    EXPECT_EQ(lines_of(reader).size(), 200'000U);
    second.join();
    reader.rewind();
    EXPECT_EQ(reader.line(), std::nullopt);
    ASSERT_TRUE(reader.error());
    EXPECT_EQ(reader.error()->iomsg, "Illegal seek");
}

TEST(TextReader, ForgetsTheOldFileWhenItOpensAnother) {
    const temporary_directory here;
    text_reader reader;
    ASSERT_EQ(reader.open(here.write("a.txt", "a1\na2\n")), std::nullopt);
    EXPECT_EQ(reader.line(), "a1");
    reader.backspace();

    ASSERT_EQ(reader.open(here.write("b.txt", "b1\n")), std::nullopt);
    EXPECT_EQ(reader.line_number(), 0);
    EXPECT_THAT(lines_of(reader), ElementsAre("b1"));

    reader.close();
    EXPECT_EQ(reader.line(), std::nullopt);
    text_reader other = std::move(reader);
    EXPECT_EQ(other.line(), std::nullopt);
}

TEST(FileWriter, GivesTheGoodNameInCommitOnly) {
    const temporary_directory here;
    const fs::path path = here / "out.txt";
    {
        file_writer writer;
        ASSERT_EQ(writer.open(path), std::nullopt);
        EXPECT_EQ(writer.name(), path.string());
        writer.write("some ");
        writer.write("text\n");
        EXPECT_FALSE(here.exists("out.txt"));
        EXPECT_THAT(names_in(here.path()), ElementsAre(StartsWith(".out.txt." + std::to_string(getpid()))));

        EXPECT_EQ(writer.commit(), std::nullopt);
        EXPECT_EQ(here.read("out.txt"), "some text\n");
    }
    EXPECT_THAT(names_in(here.path()), ElementsAre("out.txt"));
}

TEST(FileWriter, LeavesTheOldFileWithoutCommit) {
    const temporary_directory here;
    here.write("out.txt", "old");
    {
        file_writer writer;
        ASSERT_EQ(writer.open(here / "out.txt"), std::nullopt);
        writer.write("new");
    }
    EXPECT_EQ(here.read("out.txt"), "old");
    EXPECT_THAT(names_in(here.path()), ElementsAre("out.txt"));
}

TEST(FileWriter, ReplacesAnOldFile) {
    const temporary_directory here;
    here.write("out.txt", "an old and longer text");
    file_writer writer;

    ASSERT_EQ(writer.open(here / "out.txt"), std::nullopt);
    writer.write("new");

    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_EQ(here.read("out.txt"), "new");
}

TEST(FileWriter, WritesAnEmptyFile) {
    const temporary_directory here;
    file_writer writer;

    ASSERT_EQ(writer.open(here / "out.txt"), std::nullopt);
    writer.write("");

    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(here.exists("out.txt"));
    EXPECT_EQ(here.read("out.txt"), "");
}

TEST(FileWriter, KeepsTheOrderOfAllItsWaysToWrite) {
    const temporary_directory here;
    file_writer writer;
    ASSERT_EQ(writer.open(here / "out.bin"), std::nullopt);
    std::string expected;

    const std::vector<double> values = {1.5, -2.5};
    for (int i = 0; i < 60; ++i) {
        const std::string block(static_cast<std::size_t>(i) * 12'345, static_cast<char>('0' + i));
        writer.write(block);
        expected += block;
        char* room = writer.reserve(64 << 10);
        std::memset(room, 'r', 64 << 10);
        writer.advance(1000);
        expected += std::string(1000, 'r');
        writer.write_values(std::span<const double>(values));
        expected.append(reinterpret_cast<const char*>(values.data()), 16);
    }
    const std::string large(3 << 20, 'L');
    writer.write(large);
    writer.write("end");
    expected += large + "end";

    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(here.read("out.bin") == expected);
}

TEST(FileWriter, GivesANewFileTheUsualPermissions) {
    const temporary_directory here;
    const mode_t old = umask(027);
    file_writer writer;
    ASSERT_EQ(writer.open(here / "out.txt"), std::nullopt);
    EXPECT_EQ(writer.commit(), std::nullopt);
    umask(old);

    struct stat status {};
    ASSERT_EQ(stat((here / "out.txt").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST(FileWriter, WritesThroughASymbolicLink) {
    const temporary_directory here;
    fs::create_directory(here / "data");
    here.write("data/file", "old");
    fs::create_symlink("data/file", here / "link");
    fs::create_symlink("link", here / "link2");
    fs::create_symlink("data/new", here / "dangling");
    file_writer writer;

    ASSERT_EQ(writer.open(here / "link2"), std::nullopt);
    writer.write("new");
    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(fs::is_symlink(here / "link"));
    EXPECT_TRUE(fs::is_symlink(here / "link2"));
    EXPECT_EQ(here.read("data/file"), "new");

    ASSERT_EQ(writer.open(here / "dangling"), std::nullopt);
    writer.write("created");
    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(fs::is_symlink(here / "dangling"));
    EXPECT_EQ(here.read("data/new"), "created");

    fs::create_symlink("round", here / "round");
    const auto failure = writer.open(here / "round");
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iostat, ELOOP);
}

TEST(FileWriter, TellsWhyAFileCannotBeCreated) {
    const temporary_directory here;
    here.write("file", "text");
    file_writer writer;

    const auto no_directory = writer.open(here / "missing/out.txt");
    ASSERT_TRUE(no_directory);
    EXPECT_EQ(no_directory->iomsg, "No such file or directory");

    const auto below_a_file = writer.open(here / "file/out.txt");
    ASSERT_TRUE(below_a_file);
    EXPECT_EQ(below_a_file->iomsg, "Not a directory");

    const auto directory = writer.open(here.path());
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->iomsg, "Is a directory");

    const auto open_end = writer.open(here.path() / "new/");
    ASSERT_TRUE(open_end);
    EXPECT_EQ(open_end->iomsg, "Is a directory");

    const auto nameless = writer.open("");
    ASSERT_TRUE(nameless);
    EXPECT_EQ(nameless->iomsg, "No such file or directory");

    EXPECT_TRUE(writer.open("/proc/out.txt"));
    EXPECT_THAT(names_in(here.path()), ElementsAre("file"));
    EXPECT_EQ(here.read("file"), "text");
}

TEST(FileWriter, LeavesAWriteProtectedFile) {
    if (geteuid() == 0) GTEST_SKIP() << "permission bits do not bind the superuser";
    const temporary_directory here;
    const auto file = here.write("out.txt", "old");
    fs::permissions(file, fs::perms::owner_read);
    file_writer writer;

    const auto failure = writer.open(file);

    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iomsg, "Permission denied");
}

TEST(FileWriter, WritesIntoADeviceInsteadOfReplacingIt) {
    file_writer writer;
    ASSERT_EQ(writer.open("/dev/null"), std::nullopt);
    writer.write("text");

    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST(FileWriter, TellsAFullDiskInCommit) {
    file_writer writer;
    ASSERT_EQ(writer.open("/dev/full"), std::nullopt);
    writer.write("text");
    EXPECT_FALSE(writer.failed());  // still in the buffer

    const auto failure = writer.commit();

    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iostat, ENOSPC);
    EXPECT_EQ(failure->iomsg, "No space left on device");
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST(FileWriter, TellsALongLoopThatTheDiskIsFull) {
    file_writer writer;
    ASSERT_EQ(writer.open("/dev/full"), std::nullopt);

    int rows = 0;
    for (; rows < 1'000'000 && !writer.failed(); ++rows) {
        char* room = writer.reserve(1000);
        std::memset(room, 'x', 1000);
        writer.advance(1000);
    }

    EXPECT_LT(rows, 1100);
    writer.write(std::string(5 << 20, 'x'));  // harmless after the failure
    ASSERT_TRUE(writer.commit());
}

TEST(FileWriter, RemovesItsPartWhenWritingFails) {
    const temporary_directory here;
    here.write("out.txt", "old");
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{100'000, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    file_writer writer;
    const auto opened = writer.open(here / "out.txt");
    writer.write(std::string(200'000, 'x'));

    const auto failure = writer.commit();
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, old_handler);

    ASSERT_FALSE(opened);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iostat, EFBIG);
    EXPECT_EQ(here.read("out.txt"), "old");
    EXPECT_THAT(names_in(here.path()), ElementsAre("out.txt"));
}

TEST(FileWriter, TellsThatTheGoodNameCannotBeGiven) {
    const temporary_directory here;
    file_writer writer;
    ASSERT_EQ(writer.open(here / "out"), std::nullopt);
    writer.write("text");
    fs::create_directory(here / "out");  // comes in between

    const auto failure = writer.commit();

    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iomsg, "Is a directory");
    EXPECT_THAT(names_in(here.path()), ElementsAre("out"));
}

TEST(FileWriter, TellsThatNothingIsOpenToCommit) {
    file_writer writer;

    const auto failure = writer.commit();

    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iomsg, "Bad file descriptor");
}

TEST(FileWriter, CanBeUsedAgainAfterAFailure) {
    const temporary_directory here;
    file_writer writer;
    ASSERT_EQ(writer.open("/dev/full"), std::nullopt);
    writer.write("text");
    ASSERT_TRUE(writer.commit());

    ASSERT_EQ(writer.open(here / "out.txt"), std::nullopt);
    EXPECT_FALSE(writer.failed());
    writer.write("good");

    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_EQ(here.read("out.txt"), "good");
}

TEST(FileWriter, LetsTwoWritersWorkOnOneName) {
    const temporary_directory here;
    file_writer first, second;
    ASSERT_EQ(first.open(here / "out.txt"), std::nullopt);
    ASSERT_EQ(second.open(here / "out.txt"), std::nullopt);
    first.write("first");
    second.write("second");

    EXPECT_EQ(first.commit(), std::nullopt);
    EXPECT_EQ(here.read("out.txt"), "first");
    EXPECT_EQ(second.commit(), std::nullopt);
    EXPECT_EQ(here.read("out.txt"), "second");
    EXPECT_THAT(names_in(here.path()), ElementsAre("out.txt"));
}

TEST(FileWriter, TakesTheLongestFileName) {
    const temporary_directory here;
    const std::string name(255, 'n');
    file_writer writer;

    ASSERT_EQ(writer.open(here / name), std::nullopt);
    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_TRUE(here.exists(name));
}

TEST(FileWriter, WritesARelativeName) {
    const temporary_directory here;
    const test::working_directory inside(here.path());
    file_writer writer;

    ASSERT_EQ(writer.open("out.txt"), std::nullopt);
    writer.write("text");
    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_EQ(here.read("out.txt"), "text");
}

TEST(FileWriter, RemovesThePartOfAWriterThatIsReplaced) {
    const temporary_directory here;
    file_writer writer;
    ASSERT_EQ(writer.open(here / "a"), std::nullopt);
    writer = file_writer();
    EXPECT_THAT(names_in(here.path()), IsEmpty());

    ASSERT_EQ(writer.open(here / "a"), std::nullopt);
    ASSERT_EQ(writer.open(here / "b"), std::nullopt);
    EXPECT_EQ(writer.commit(), std::nullopt);
    EXPECT_THAT(names_in(here.path()), ElementsAre("b"));
}

TEST(FileWriter, SurvivesAPipeThatNobodyReads) {
    const temporary_directory here;
    const fs::path pipe = here / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    file_writer writer;
    std::thread reader([&] { std::ifstream opened(pipe); });
    ASSERT_EQ(writer.open(pipe), std::nullopt);
    reader.join();
    writer.write("text");

    const auto failure = writer.commit();

    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->iomsg, "Broken pipe");
}

TEST(BinaryReader, ReadsValuesOfAllSizes) {
    const temporary_directory here;
    const std::vector<std::int32_t> small = {1, -2, 3};
    std::vector<double> large(400'000);
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = 0.5 * static_cast<double>(i);
    file_writer writer;
    ASSERT_EQ(writer.open(here / "a.stream"), std::nullopt);
    writer.write_values(std::span<const std::int32_t>(small));
    writer.write_values(std::span<const double>(large));
    writer.write_values(std::span<const std::int32_t>(small));
    ASSERT_EQ(writer.commit(), std::nullopt);

    binary_reader reader;
    ASSERT_EQ(reader.open(here / "a.stream"), std::nullopt);
    EXPECT_EQ(reader.size(), 3'200'024);
    std::vector<std::int32_t> head(3), tail(3);
    std::vector<double> values(400'000);
    ASSERT_TRUE(reader.read_values(std::span<std::int32_t>(head)));
    EXPECT_EQ(reader.position(), 12);
    EXPECT_FALSE(reader.at_end());
    ASSERT_TRUE(reader.read_values(std::span<double>(values)));
    ASSERT_TRUE(reader.read_values(std::span<std::int32_t>(tail)));

    EXPECT_EQ(head, small);
    EXPECT_EQ(tail, small);
    EXPECT_TRUE(values == large);
    EXPECT_TRUE(reader.at_end());
}

TEST(BinaryReader, ReadsInPiecesOfEverySize) {
    const temporary_directory here;
    std::string text(5 << 20, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 2654435761U >> 13U);
    binary_reader reader;
    ASSERT_EQ(reader.open(here.write("a.bin", text)), std::nullopt);

    std::string all;
    for (std::size_t size = 1; !reader.at_end(); size = (size * 7 + 3) % 1'500'000) {
        std::string piece(std::min(size, text.size() - all.size()), '\0');
        ASSERT_TRUE(reader.read_bytes(piece.data(), piece.size()));
        all += piece;
        ASSERT_EQ(reader.position(), std::ssize(all));
    }
    EXPECT_TRUE(all == text);
}

TEST(BinaryReader, ReadsNothingBeyondTheEnd) {
    const temporary_directory here;
    binary_reader reader;
    ASSERT_EQ(reader.open(here.write("a.bin", "abcde")), std::nullopt);
    std::array<char, 8> bytes{};

    EXPECT_TRUE(reader.read_bytes(bytes.data(), 3));
    EXPECT_FALSE(reader.read_bytes(bytes.data() + 3, 3));
    EXPECT_FALSE(reader.read_bytes(bytes.data() + 3, static_cast<std::size_t>(-1)));
    EXPECT_EQ(reader.position(), 3);
    EXPECT_TRUE(reader.read_bytes(bytes.data() + 3, 2));
    EXPECT_STREQ(bytes.data(), "abcde");
    EXPECT_TRUE(reader.at_end());
    EXPECT_TRUE(reader.read_bytes(nullptr, 0));
    EXPECT_FALSE(reader.read_bytes(bytes.data(), 1));
}

TEST(BinaryReader, NoticesAFileThatBecomesShorter) {
    const temporary_directory here;
    const auto file = here.write("a.bin", std::string(3 << 20, 'x'));
    binary_reader reader;
    ASSERT_EQ(reader.open(file), std::nullopt);
    std::vector<char> bytes(3 << 20);
    ASSERT_TRUE(reader.read_bytes(bytes.data(), 10));
    fs::resize_file(file, 100);

    EXPECT_FALSE(reader.read_bytes(bytes.data(), 2 << 20));
    EXPECT_TRUE(reader.at_end());
}

TEST(BinaryReader, TellsWhyAFileCannotBeOpened) {
    const temporary_directory here;
    binary_reader reader;

    const auto missing = reader.open(here / "missing");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->iomsg, "No such file or directory");

    const auto directory = reader.open(here.path());
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->iomsg, "Is a directory");
    EXPECT_TRUE(reader.at_end());

    const fs::path pipe = here / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int other_end = open(pipe.c_str(), O_RDWR);  // so that opening the pipe does not wait
    ASSERT_GE(other_end, 0);
    const auto no_file = reader.open(pipe);
    close(other_end);
    ASSERT_TRUE(no_file);
    EXPECT_EQ(no_file->iomsg, "Illegal seek");
}

}  // namespace

bool operator==(const file_error& a, const file_error& b) {
    return a.iostat == b.iostat && a.iomsg == b.iomsg;
}
void PrintTo(const file_error& e, std::ostream* out) {
    *out << e.iostat << " " << e.iomsg;
}

}  // namespace zendar
