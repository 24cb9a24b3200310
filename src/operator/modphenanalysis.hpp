#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "modlogger.hpp"
#include "modmmeiod_huge.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"
#include "modview.hpp"

/// Solutions back in the space of the phenotypes.
namespace zendar {

/// What estimates are made from; everything outlives the call.
struct estimate_input {
    const param_type& param;
    matrix_view<const std::int32_t> effect;  ///< levels, a column for each record
    std::span<const covariable_type> cov;    ///< one per effect, or none
    std::span<const double> solutions;       ///< neq
};

/// Room for the product of coefficients and solutions of each huge effect that records meet, traits fastest;
/// an effect with a flag in `exclude` gets none.
/// @throws fatal_error  for an effect among the huge ones that is of another type.
[[nodiscard]] std::vector<modmmeiod::huge_effect> initsumestimate(const param_type& param,
                                                                  std::span<const covariable_type> cov,
                                                                  std::span<const unsigned char> exclude,
                                                                  logger& log);

/// yhat(t, i), the sum of coefficients times solutions of record i, for all traits, be they observed or not.
/// Effects with a flag in `exclude` (empty, or one for each effect) are left out. In the `_ori` form the
/// equation of a trait is that of its number, in the `_combieff` form that of its slot.
///
/// O(records * coefficients of a record), and one product with the coefficients of each huge effect.
/// @param yhat  ntrait x records, out
/// @throws fatal_error  for levels that have no equation.
void compute_yhat_ori(matrix<double>& yhat, std::span<const unsigned char> exclude, const estimate_input& in,
                      logger& log);
void compute_yhat_combieff(matrix<double>& yhat, std::span<const unsigned char> exclude,
                           const estimate_input& in, logger& log);
/// The form that `lcombieff` asks for.
void compute_yhat(matrix<double>& yhat, std::span<const unsigned char> exclude, const estimate_input& in,
                  logger& log);

/// phendev(t, i) = phen(t, i) - yhat(t, i), or `rmissing` where that is the phenotype; what `exclude` leaves
/// out of yhat so stays in the deviation.
/// @param phen  ntrait x records; without elements it is read from "phentmp.stream"
/// @throws fatal_error  also when that file is missing or of another size.
void compute_phendeviations_ori(matrix<double>& phendev, std::span<const unsigned char> exclude,
                                const estimate_input& in, matrix<double>& phen, double rmissing, logger& log);
void compute_phendeviations_combieff(matrix<double>& phendev, std::span<const unsigned char> exclude,
                                     const estimate_input& in, matrix<double>& phen, double rmissing,
                                     logger& log);
void compute_phendeviations(matrix<double>& phendev, std::span<const unsigned char> exclude,
                            const estimate_input& in, matrix<double>& phen, double rmissing, logger& log);

/// A text of one line per column, its values in "g0.6" form with a blank between them: "yhat.dat",
/// "deviations.dat".
void write_records(matrix_view<const double> values, const std::filesystem::path& file, logger& log);

}  // namespace zendar
