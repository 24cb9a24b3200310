# Builds the genotype library with ZENDAR_CUDA off, as it is where no CUDA compiler is
# found, and looks whether the outcome knows nothing of CUDA. Called with source, build, generator, launcher.

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
endfunction()

run(${CMAKE_COMMAND} -S ${source} -B ${build} -G ${generator} -DZENDAR_CUDA=OFF -DZENDAR_TESTS=OFF
    -DZENDAR_BENCHMARKS=OFF -DZENDAR_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER_LAUNCHER=${launcher})
run(${CMAKE_COMMAND} --build ${build} --parallel 2 --target zendar_miraculix)

file(STRINGS ${build}/CMakeCache.txt compiler REGEX "^CMAKE_CUDA_COMPILER:")
if(compiler)
    message(FATAL_ERROR "a CUDA compiler was looked for: ${compiler}")
endif()
file(READ ${build}/generated/modheader_version.hpp header)
if(NOT header MATCHES "#define ZENDAR_GPU 0")
    message(FATAL_ERROR "the banner would tell of GPUs: ${header}")
endif()
if(EXISTS ${build}/bin/libzendar_gpu.so)
    message(FATAL_ERROR "there is a library for the GPU")
endif()
