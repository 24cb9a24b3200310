#include "genovector5_kernel.hpp"

namespace miraculix {

const genovector5_member<double> genoVector5v128_double = {
    "genoVector5v128_double", 128, {genovector5<double, 1, 12>, genovector5<double, 2, 6>, nullptr, nullptr}};

const genovector5_member<double> genoVector5v128_floatD = {
    "genoVector5v128_floatD", 128, {genovector5<float, 1, 12>, genovector5<float, 2, 8>, nullptr, nullptr}};

}  // namespace miraculix
