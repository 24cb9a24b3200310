#include "genovector5_kernel.hpp"

namespace miraculix {

const genovector5_member<double> genoVector5v512_double = {
    "genoVector5v512_double",
    512,
    {genovector5<double, 1, 12>, genovector5<double, 2, 6>, genovector5<double, 4, 4>,
     genovector5<double, 8, 2>}};

const genovector5_member<double> genoVector5v512_floatD = {
    "genoVector5v512_floatD",
    512,
    {genovector5<float, 1, 12>, genovector5<float, 2, 8>, genovector5<float, 4, 4>,
     genovector5<float, 8, 4>}};

}  // namespace miraculix
