#include "genovector5_kernel.hpp"

namespace miraculix {

const genovector5_member<double> genoVector5v256_double = {
    "genoVector5v256_double",
    256,
    {genovector5<double, 1, 12>, genovector5<double, 2, 6>, genovector5<double, 4, 4>, nullptr}};

const genovector5_member<double> genoVector5v256_floatD = {
    "genoVector5v256_floatD",
    256,
    {genovector5<float, 1, 12>, genovector5<float, 2, 8>, genovector5<float, 4, 4>, nullptr}};

}  // namespace miraculix
