#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modsolveriod_dpcg_comp.hpp"
#include "modsolveriod_dpcg_detail.hpp"

/// Deflation with compressed subdomains; private to the solvers.
namespace zendar::detail {

/// E^-1: read from the file of `!galerkin`, or computed.
/// @throws fatal_error  for a file that cannot be read or is of another size, and as `computeeinv`.
[[nodiscard]] matrix<double> obtain_einv(const param_type& param, linear_system& system,
                                         structured_operator* structured, const subdomains& z, logger& log);

/// P of compressed subdomains. Its arguments outlive it.
class compressed_projector final : public deflation_projector {
  public:
    compressed_projector(linear_operator& c, const subdomains& z, const matrix<double>& einv);

    /// computeptimesvector; behind the product with C it makes computepatimesvector.
    void project(std::span<double> v) override;
    void correct(std::span<const double> r, std::span<double> x) override;

  private:
    /// coarse[j] = (E^-1 Z' v)(j), j from 1.
    void restrict_to_subdomains(std::span<const double> v);

    linear_operator& c_;
    const subdomains& z_;
    const matrix<double>& einv_;
    std::vector<double> sums_, coarse_;  ///< coarse_[0] = 0 belongs to equations without a subdomain
    std::vector<double> partial_;
    work_vector expanded_, product_;
};

}  // namespace zendar::detail
