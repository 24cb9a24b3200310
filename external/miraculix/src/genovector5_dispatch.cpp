#include <array>

#include "genovector5.hpp"

namespace miraculix {

std::span<const genovector5_member<double>* const> genovector5_members() {
    static constexpr std::array<const genovector5_member<double>*, 8> members = {
        &genoVector5v32_double, &genoVector5v128_double, &genoVector5v256_double, &genoVector5v512_double,
        &genoVector5v32_floatD, &genoVector5v128_floatD, &genoVector5v256_floatD, &genoVector5v512_floatD};
    return members;
}

// The instruction sets are those that CMakeLists.txt gives to the sources of the members.
bool processor_has(std::int32_t bits) {
#if defined(__x86_64__)
    if (bits > 256) return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("bmi2");
    if (bits > 128) return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2");
#endif
    return bits <= 128;
}

const genovector5_member<double>& fastest_genovector5(bool single_precision) {
    if (processor_has(512)) return single_precision ? genoVector5v512_floatD : genoVector5v512_double;
    if (processor_has(256)) return single_precision ? genoVector5v256_floatD : genoVector5v256_double;
    return single_precision ? genoVector5v128_floatD : genoVector5v128_double;
}

}  // namespace miraculix
