// speed_page results.json ...
//
// Turns the results of the benchmarks (--benchmark_format=json) into two tables in Markdown on the standard
// output: what the machine gives, and each benchmark beside its floor and its peer. bench/speed_page.sh calls
// it.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

// ---- results ---------------------------------------------------------------------------------------------

struct result {
    std::string name;
    std::string label = {};
    std::map<std::string, double, std::less<>> values = {};
    bool failed = false;

    [[nodiscard]] std::optional<double> value(std::string_view key) const {
        const auto at = values.find(key);
        return at == values.end() || !(at->second > 0.0) ? std::nullopt : std::optional(at->second);
    }
    [[nodiscard]] double seconds() const { return value("real_time").value_or(0.0); }
};

/// The library writes one key a line; a benchmark begins with its name.
std::vector<result> read_results(const std::string& file) {
    std::ifstream in(file);
    if (!in) {
        std::cerr << "Cannot open the file " << file << '\n';
        std::exit(1);
    }
    std::vector<result> results;
    double unit = 1e-9;
    for (std::string line; std::getline(in, line);) {
        const auto begin = line.find('"'), end = line.find("\": ");
        if (begin == std::string::npos || end == std::string::npos) continue;
        const std::string key = line.substr(begin + 1, end - begin - 1);
        std::string text = line.substr(end + 3);
        if (text.ends_with(',')) text.pop_back();
        if (text.starts_with('"') && text.size() > 1) text = text.substr(1, text.size() - 2);
        if (key == "name") {
            results.push_back({.name = text});
        } else if (!results.empty()) {
            if (key == "label") results.back().label = text;
            if (key == "error_occurred") results.back().failed = text == "true";
            results.back().values[key] = std::strtod(text.c_str(), nullptr);
            if (key == "time_unit") {
                unit = text == "s" ? 1.0 : text == "ms" ? 1e-3 : text == "us" ? 1e-6 : 1e-9;
                for (const char* time : {"real_time", "cpu_time"}) results.back().values[time] *= unit;
            }
        }
    }
    std::erase_if(results, [](const result& r) { return r.failed; });
    return results;
}

/// The words of a name between its slashes, without what only tells how it was timed.
std::vector<std::string> parts_of(const std::string& name) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at <= name.size();) {
        const std::size_t end = std::min(name.find('/', at), name.size());
        const std::string part = name.substr(at, end - at);
        if (part != "real_time" && !part.starts_with("min_time:") && !part.starts_with("iterations:"))
            parts.push_back(part);
        at = end + 1;
    }
    return parts;
}

// ---- what is compared with what --------------------------------------------------------------------------

/// Where a comparison comes from.
enum class source {
    none,
    times,      ///< a counter: measured time over the other
    fraction,   ///< a counter: the other over the measured time
    same,       ///< the time of another benchmark with the same arguments
    threads,    ///< a rate of another benchmark with the same number of threads
    rate,       ///< a rate of another benchmark
    bandwidth,  ///< the bytes at the rate of reading memory
    counters,   ///< two rates of the benchmark itself
};

struct comparison {
    source from = source::none;
    std::string_view what = {};     ///< for the reader
    std::string_view counter = {};  ///< of the benchmark, or the rate of both
    std::string_view other = {};    ///< benchmark, or second counter
};

struct rule {
    std::string_view name;  ///< the beginning of the names
    std::string_view text;
    std::vector<std::string_view> arguments = {};  ///< those that the names only number
    comparison floor = {};
    comparison peer = {};
    std::string_view floor_only_for = {};  ///< a part of the names for which the floor holds
};

const comparison bandwidth{source::bandwidth, "reading the bytes"};
const comparison by_counter{source::times, "bytes streamed, random accesses", "of_floor"};
const comparison dense_alone{source::times, "BLAS on the same arrays", "ratio"};

const std::vector<rule> rules = {
    {"BM_computeleastsquarepart", "records times a vector", {}, by_counter},
    {"BM_ainverse_product", "A-inverse times 6 columns", {}, by_counter},
    {"BM_crs_multiply_symmetric",
     "sparse matrix (0 banded, 1 families, 2 any order) times columns",
     {},
     by_counter,
     {source::times, "one column", "of_one_column"}},
    {"BM_crs_multiply_general",
     "the same rows as a general matrix times columns",
     {},
     by_counter,
     {source::times, "one column", "of_one_column"}},
    {"BM_preconditionertimesx",
     "preconditioner times a vector",
     {},
     {source::times, "bytes streamed", "floor"}},
    {"BM_update_direction",
     "direction of the conjugate gradients",
     {"equations (1000)", "threads"},
     {source::times, "bytes streamed", "of_floor"}},
    {"BM_update_solution",
     "solution and residual",
     {"equations (1000)", "threads"},
     {source::times, "bytes streamed", "of_floor"}},
    {"BM_create_mija_lhs",
     "preconditioner made",
     {},
     {source::times, "one product with the coefficient matrix", "products"}},
    {"BM_setup_lhsrhs",
     "equations assembled",
     {},
     {source::counters, "the additions to the table alone", "table_alone_M_per_s", "additions_M_per_s"}},
    {"BM_dgemm_compressed/t:",
     "genotypes (2 bits) times columns",
     {},
     {source::fraction, "bytes, or additions at the rate of DGEMM", "of_floor"},
     {source::fraction, "DGEMM on doubles", "of_dgemm"}},
    {"BM_dgemm_compressed",
     "genotypes (5 in a byte) times columns",
     {"transposed", "columns", "threads"},
     {},
     {source::same, "DGEMM on doubles", "", "BM_dgemm"}},
    {"BM_plink2compressed", "genotypes packed, 5 in a byte", {"threads"}, bandwidth},
    {"BM_count_genotypes", "genotypes counted", {}, {source::fraction, "reading the bytes", "of_stream"}},
    {"BM_transpose_integermatrix", "genotypes transposed", {}, bandwidth},
    {"BM_readcovariable_bed", "genotypes read (page cache)", {}, bandwidth},
    {"BM_add_genomic_products",
     "G of genotypes",
     {"animals", "SNPs", "missing in 1000", "threads"},
     {source::threads, "look-ups in registers", "products", "BM_look_up_floor"},
     {source::threads, "DSYRK on doubles", "products", "BM_dsyrk/4000/20000"}},
    {"BM_gima22i/", "matrix of genotyped animals times 6 columns", {"animals", "threads"}, {}, dense_alone},
    {"BM_gapy", "APY inverse times 6 columns", {"core", "others", "threads"}, {}, dense_alone},
    {"BM_tamatrix", "Ta times 6 columns", {"SNPs", "animals", "block", "threads"}, {}, dense_alone},
    {"BM_readgima22i", "text triangle read", {"threads"}, bandwidth},
    {"BM_readtamatrix_stream", "binary Ta read", {"threads"}, bandwidth},
    {"BM_readdata_phen_ascii", "records read", {}, bandwidth},
    {"BM_readpedigree_max", "pedigree of 4,000,000 read", {}, bandwidth},
    {"BM_computeinbreeding_ped", "inbreeding, 1,000,000 animals", {}},
    {"BM_growth", "pedigree: step 1, 2 inbreeding, 3 order, 4 A-inverse", {}},
    {"BM_getorder", "order of 1,000,000 animals", {}},
    {"BM_setaddressx_alter",
     "a million records addressed",
     {},
     {source::rate, "copying the bytes", "bytes_per_second", "BM_floor_stream_copy"}},
    {"BM_check_levels", "a million records checked", {}, bandwidth},
    {"BM_writeoutput_real8",
     "solutions written as text",
     {"levels"},
     {source::rate, "making the digits alone", "items_per_second", "BM_floor_write_g06/1048576"}},
    {"BM_writeoutput_neq_int4",
     "subdomains written as text",
     {"levels"},
     {source::rate, "writing ready bytes", "bytes_per_second", "BM_floor_write_bytes/1048576"}},
    {"BM_writeoutputstream_real8",
     "solutions written in binary form",
     {"levels"},
     {source::rate, "writing ready bytes", "bytes_per_second", "BM_floor_write_bytes/1048576"}},
    {"BM_initvectorfromfile_text", "solutions read, text", {"levels"}, bandwidth},
    {"BM_initvectorfromfile_stream",
     "solutions read, binary form",
     {"levels"},
     {source::rate, "copying the bytes", "bytes_per_second", "BM_floor_memcpy/1048576"}},
    {"BM_coosparse_add_present",
     "sums in a hash table",
     {"elements", "batched"},
     {source::rate, "random accesses, prefetched", "items_per_second",
      "BM_random_access/slots:67108864/huge:1/kind:2"}},
    {"BM_coosparse_add",
     "hash table filled",
     {"elements", "presized", "batched"},
     {source::rate, "random accesses, prefetched", "items_per_second",
      "BM_random_access/slots:67108864/huge:1/kind:2"},
     {},
     "/50000000/"},
    {"BM_convertfromcootocrs", "hash table to sorted rows", {"elements"}},
    {"cholesky_with_drops",
     "Cholesky with dependent equations",
     {"", "threads"},
     {source::threads, "DGEMM", "flops/s", "machine"},
     {source::same, "CHOLMOD", "", "cholmod_supernodal"}},
    {"cholesky/",
     "Cholesky",
     {"", "threads"},
     {source::threads, "DGEMM", "flops/s", "machine"},
     {source::same, "CHOLMOD", "", "cholmod_supernodal"}},
    {"inverse/", "selected inverse", {"", "threads"}, {source::threads, "DGEMM", "flops/s", "machine"}},
    {"whole_procedure", "order given to selected inverse", {"", "threads"}},
    {"symbolic", "symbolic factorisation", {"", "threads"}},
};

// ---- rows ------------------------------------------------------------------------------------------------

std::string text_of(const char* format, double x) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, x);
    return text.data();
}

std::string time_text(double seconds) {
    if (seconds >= 1.0) return text_of("%.3g s", seconds);
    return seconds >= 1e-3 ? text_of("%.3g ms", 1e3 * seconds) : text_of("%.3g us", 1e6 * seconds);
}

struct sized {
    std::string size, threads = "1";
};

/// The arguments of a name in words, the number of threads apart.
sized size_of(const rule& r, const result& own) {
    sized found{.size = own.label};
    const std::vector<std::string> parts = parts_of(own.name);
    for (std::size_t i = 1; i < parts.size(); ++i) {
        std::string key, value = parts[i];
        if (const auto colon = value.find(':'); colon != std::string::npos) {
            key = value.substr(0, colon);
            value = value.substr(colon + 1);
        } else if (i <= r.arguments.size()) {
            key = r.arguments[i - 1];
            if (key.empty()) continue;  // the label tells it
        }
        if (key == "t") key = "transposed";
        if (key == "threads")
            found.threads = value;
        else if (key != "model")  // its label tells it
            found.size += (found.size.empty() ? "" : ", ") + key + (key.empty() ? "" : " ") + value;
    }
    return found;
}

class page {
  public:
    explicit page(std::vector<result> results) : results_(std::move(results)) {}

    void print() const {
        print_machine();
        std::cout
            << "| Benchmark | Size | Threads | Measured | Floor | Times the floor | Peer | Times the peer |\n"
               "|---|---|---|---|---|---|---|---|\n";
        for (const rule& r : rules)
            for (const result& own : results_)
                if (rule_of(own) == &r) print_row(r, own);
    }

    /// Benchmarks without a row that are not themselves floors or peers.
    [[nodiscard]] std::vector<std::string> left_over() const {
        std::vector<std::string> names;
        for (const result& own : results_)
            if (rule_of(own) == nullptr && !is_yardstick(own)) names.push_back(own.name);
        return names;
    }

  private:
    static const rule* rule_of(const result& own) {
        const auto found =
            std::ranges::find_if(rules, [&](const rule& r) { return own.name.starts_with(r.name); });
        return found == rules.end() ? nullptr : &*found;
    }

    static bool is_yardstick(const result& own) {
        constexpr std::array<std::string_view, 11> names = {
            "BM_floor_",      "BM_look_up_floor", "BM_read_bandwidth", "BM_dsyrk",
            "BM_dgemm/",      "BM_gima22i_dgemm", "BM_random_access",  "BM_first_touch",
            "BM_stream_read", "machine",          "cholmod_supernodal"};
        // The plain recursion by columns shows what supernodes are worth.
        return own.name.starts_with("inverse_by_columns") ||
               std::ranges::any_of(names, [&](std::string_view name) { return own.name.starts_with(name); });
    }

    /// The benchmark with a name, whatever tells how it was timed behind it.
    [[nodiscard]] const result* find(std::string_view name) const {
        const auto parts = parts_of(std::string(name));
        const auto found =
            std::ranges::find(results_, parts, [](const result& r) { return parts_of(r.name); });
        return found == results_.end() ? nullptr : &*found;
    }

    [[nodiscard]] std::optional<double> rate_of(const std::string& name, std::string_view counter) const {
        const result* const other = find(name);
        return other == nullptr ? std::nullopt : other->value(counter);
    }

    /// Measured time over that of the floor or the peer.
    [[nodiscard]] std::optional<double> ratio(const comparison& c, const result& own,
                                              const std::string& threads) const {
        const auto quotient = [](std::optional<double> a, std::optional<double> b) {
            return a && b ? std::optional(*a / *b) : std::nullopt;
        };
        switch (c.from) {
            case source::none:
                return std::nullopt;
            case source::times:
                return own.value(c.counter);
            case source::fraction:
                return quotient(1.0, own.value(c.counter));
            case source::same: {
                std::string name(c.other);
                const auto parts = parts_of(own.name);
                for (std::size_t i = 1; i < parts.size(); ++i) name += "/" + parts[i];
                const result* const other = find(name);
                return other == nullptr ? std::nullopt : quotient(own.seconds(), other->value("real_time"));
            }
            case source::threads:
                return quotient(rate_of(std::string(c.other) + "/" + threads, c.counter),
                                own.value(c.counter));
            case source::rate:
                return quotient(rate_of(std::string(c.other), c.counter), own.value(c.counter));
            case source::bandwidth: {
                const auto rate = rate_of("BM_read_bandwidth/" + threads, "GB/s");
                return quotient(rate ? std::optional(1e9 * *rate) : std::nullopt,
                                own.value("bytes_per_second"));
            }
            case source::counters:
                return quotient(own.value(c.counter), own.value(c.other));
        }
        return std::nullopt;
    }

    void print_row(const rule& r, const result& own) const {
        const sized size = size_of(r, own);
        std::string measured = time_text(own.seconds());
        if (const auto bytes = own.value("bytes_per_second"))
            measured += text_of(", %.3g GB/s", 1e-9 * *bytes);
        std::cout << "| " << r.text << " | " << size.size << " | " << size.threads << " | " << measured
                  << " | ";
        const bool has_floor = own.name.find(r.floor_only_for) != std::string::npos;
        print_comparison(has_floor ? r.floor : comparison{}, own, size.threads);
        print_comparison(r.peer, own, size.threads);
        std::cout << '\n';
    }

    void print_comparison(const comparison& c, const result& own, const std::string& threads) const {
        const auto times = ratio(c, own, threads);
        const bool own_counter = c.from == source::times || c.from == source::fraction;
        if (c.from == source::none || (own_counter && !times))  // the benchmark has none for these arguments
            std::cout << "| | ";
        else if (!times)
            std::cout << c.what << ": absent | | ";
        else
            std::cout << c.what << ", " << time_text(own.seconds() / *times) << " | "
                      << text_of("%.2f", *times) << " | ";
    }

    void print_machine() const {
        std::cout << "| What the machine gives | 1 thread | 2 threads |\n|---|---|---|\n";
        const auto row = [&](const char* what, const std::string& name, const char* counter, double unit,
                             const char* format) {
            std::cout << "| " << what;
            for (const char* threads : {"/1", "/2"}) {
                const auto rate = rate_of(name + threads, counter);
                std::cout << " | " << (rate ? text_of(format, *rate * unit) : "not measured");
            }
            std::cout << " |\n";
        };
        row("reading memory", "BM_read_bandwidth", "GB/s", 1.0, "%.3g GB/s");
        row("DGEMM, order 1200", "machine", "flops/s", 1e-9, "%.3g Gflop/s");
        std::cout << '\n';
    }

    std::vector<result> results_;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<result> results;
    for (const char* file : std::span(argv + 1, argv + argc))
        std::ranges::move(read_results(file), std::back_inserter(results));
    if (results.empty()) {
        std::cerr << "usage: speed_page results.json ...  (there are no results)\n";
        return 1;
    }
    const page made(std::move(results));
    made.print();
    const auto names = made.left_over();
    for (const std::string& name : names) std::cerr << "speed_page has no row for " << name << '\n';
    return names.empty() ? 0 : 1;
}
