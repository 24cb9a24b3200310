#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "modfile.hpp"
#include "modlogger.hpp"

namespace zendar::simulate {

struct population;
struct simulate_options;
struct snp_data;

/// A text file that gets its name when it is closed.
class text_file {
  public:
    /// @throws fatal_error  when the file cannot be written; so does `close`.
    text_file(const std::string& folder, const std::string& name, logger& log);
    text_file& text(std::string_view words);
    text_file& integer(std::int64_t value);
    text_file& fixed(double value);    ///< with 3 decimals
    text_file& general(double value);  ///< as few digits as give the value again
    text_file& bytes(const std::vector<std::uint8_t>& values);
    void close();

  private:
    file_writer file_;
    std::string path_;
    logger& log_;
};

void write_pedigree(const simulate_options& options, const population& animals,
                    const std::vector<std::string>& names, logger& log);
void write_genotypes(const simulate_options& options, const snp_data& snps,
                     const std::vector<std::string>& names, logger& log);
void write_true_values(const simulate_options& options, const std::vector<double>& values, logger& log);

/// The instruction files of all models that are asked for, and the variances (modsimulate_model.cpp).
void write_models(const simulate_options& options, const population& animals, const snp_data& snps,
                  logger& log);

}  // namespace zendar::simulate
