#pragma once

#include <cmath>
#include <limits>

namespace zendar::test {

/// |v|, and infinity for a value that is not a number, as std::max would pass over it.
inline double magnitude(double v) {
    return std::isnan(v) ? std::numeric_limits<double>::infinity() : std::fabs(v);
}

}  // namespace zendar::test
