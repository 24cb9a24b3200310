#include "modsimulate_write.hpp"

#include <charconv>

#include "modbasic.hpp"
#include "modsimulate_genotypes.hpp"

namespace zendar::simulate {
namespace {

constexpr std::size_t most_characters = 400;  // of a double in fixed form

[[noreturn]] void cannot_write(const std::string& path, const file_error& failure, logger& log) {
    fatal_io(log, "Cannot write the file " + path, "modsimulate", "text_file", failure.iostat, failure.iomsg);
}

}  // namespace

text_file::text_file(const std::string& folder, const std::string& name, logger& log)
    : path_((std::filesystem::path(folder) / name).string()), log_(log) {
    if (const auto failure = file_.open(path_)) cannot_write(path_, *failure, log_);
}

text_file& text_file::text(std::string_view words) {
    file_.write(words);
    return *this;
}

text_file& text_file::integer(std::int64_t value) {
    char* const to = file_.reserve(most_characters);
    file_.advance(static_cast<std::size_t>(write_i0(to, value) - to));
    return *this;
}

text_file& text_file::fixed(double value) {
    char* const to = file_.reserve(most_characters);
    const auto [end, status] = std::to_chars(to, to + most_characters, value, std::chars_format::fixed, 3);
    file_.advance(static_cast<std::size_t>(end - to));
    return *this;
}

text_file& text_file::general(double value) {
    char* const to = file_.reserve(most_characters);
    const auto [end, status] = std::to_chars(to, to + most_characters, value);
    file_.advance(static_cast<std::size_t>(end - to));
    return *this;
}

text_file& text_file::bytes(const std::vector<std::uint8_t>& values) {
    file_.write_bytes(values.data(), values.size());
    return *this;
}

void text_file::close() {
    if (const auto failure = file_.commit()) cannot_write(path_, *failure, log_);
}

void write_pedigree(const simulate_options& options, const population& animals,
                    const std::vector<std::string>& names, logger& log) {
    text_file codes(options.folder, "pedigree.txt", log);
    const std::int32_t n = animals.nanimal();
    for (std::int32_t i = 0; i < n; ++i)
        codes.integer(i + 1)
            .text(" ")
            .integer(animals.parents[i][0])
            .text(" ")
            .integer(animals.parents[i][1])
            .text("\n");
    codes.close();
    if (names.empty()) return;
    text_file named(options.folder, "pedigree_names.txt", log), list(options.folder, "names.txt", log);
    for (std::int32_t i = 0; i < n; ++i) {
        named.text(names[i]);
        for (const std::int32_t parent : animals.parents[i]) {
            named.text(" ");
            if (animals.is_animal(parent))
                named.text(names[parent - 1]);
            else if (parent == 0)
                named.text("0");
            else
                named.text("group").integer(parent - n);
        }
        named.text("\n");
        list.integer(i + 1).text(" ").text(names[i]).text("\n");
    }
    named.close();
    list.close();
}

void write_genotypes(const simulate_options& options, const snp_data& snps,
                     const std::vector<std::string>& names, logger& log) {
    text_file bed(options.folder, "snp.bed", log), bim(options.folder, "snp.bim", log),
        fam(options.folder, "snp.fam", log);
    bed.text(std::string_view("\x6C\x1B\x01", 3)).bytes(snps.bed).close();
    for (std::int64_t chromosome = 0, j = 0; chromosome < options.chromosomes; ++chromosome)
        for (; j < (chromosome + 1) * options.snps / options.chromosomes; ++j)
            bim.integer(chromosome + 1).text(" snp").integer(j + 1).text(" 0 ").integer(j + 1).text(" C A\n");
    bim.close();
    const std::int32_t first = options.animals - options.genotyped + 1;
    for (std::int32_t i = first; i <= options.animals; ++i) fam.text("0 ").integer(i).text(" 0 0 0 -9\n");
    fam.close();
    if (names.empty()) return;
    text_file named(options.folder, "snp_names.fam", log);
    for (std::int32_t i = first; i <= options.animals; ++i)
        named.text("0 ").text(names[i - 1]).text(" 0 0 0 -9\n");
    named.close();
}

void write_true_values(const simulate_options& options, const std::vector<double>& values, logger& log) {
    text_file file(options.folder, "true_values.txt", log);
    const std::int32_t nvalue = options.nvalue();
    for (std::int32_t i = 0; i < options.animals; ++i) {
        file.integer(i + 1);
        for (std::int32_t v = 0; v < nvalue; ++v) file.text(" ").fixed(values[std::int64_t{i} * nvalue + v]);
        file.text("\n");
    }
    file.close();
}

}  // namespace zendar::simulate
