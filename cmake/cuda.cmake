# ZENDAR_GPU: whether the GPU path is built, which is the case when a CUDA compiler is found. It is a shared
# object of its own: the program neither needs CUDA to be built nor to start.

option(ZENDAR_CUDA "Build the GPU path when a CUDA compiler is found" ON)
set(ZENDAR_GPU OFF)

if(NOT ZENDAR_CUDA)
    message(STATUS "Without GPU support: ZENDAR_CUDA is off")
elseif(ZENDAR_SANITIZE)
    message(STATUS "Without GPU support: the sanitizers do not know CUDA")
else()
    find_program(ZENDAR_NVCC nvcc HINTS ENV CUDA_HOME ENV CUDA_PATH PATHS /usr/local/cuda PATH_SUFFIXES bin)
    mark_as_advanced(ZENDAR_NVCC)
    if(ZENDAR_NVCC AND NOT DEFINED ENV{CUDACXX} AND NOT DEFINED CMAKE_CUDA_COMPILER)
        set(ENV{CUDACXX} ${ZENDAR_NVCC})  # it need not be on the path
    endif()
    if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
        set(CMAKE_CUDA_ARCHITECTURES "80-real;90")  # machine code of both, and PTX for later ones
    endif()
    if(NOT DEFINED CMAKE_CUDA_HOST_COMPILER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        set(CMAKE_CUDA_HOST_COMPILER ${CMAKE_CXX_COMPILER})
    endif()
    include(CheckLanguage)
    check_language(CUDA)
    if(CMAKE_CUDA_COMPILER)
        enable_language(CUDA)
        find_package(CUDAToolkit)
    endif()
    if(CUDAToolkit_FOUND AND TARGET CUDA::cudart_static)
        set(ZENDAR_GPU ON)
    endif()
    message(STATUS "GPU support: ${ZENDAR_GPU}")
endif()

set(ZENDAR_CUDA_WARNINGS -Xcompiler=-Wall,-Wextra,-Wconversion,-Wno-sign-conversion)
if(ZENDAR_WERROR)
    list(APPEND ZENDAR_CUDA_WARNINGS --Werror=all-warnings)
endif()

# zendar_cuda(target): the language standard and the warnings of a target with device code.
function(zendar_cuda target)
    target_compile_options(${target} PRIVATE
        "$<$<COMPILE_LANGUAGE:CXX>:${ZENDAR_WARNINGS}>" "$<$<COMPILE_LANGUAGE:CUDA>:${ZENDAR_CUDA_WARNINGS}>")
    set_target_properties(${target} PROPERTIES CUDA_STANDARD 17 CUDA_STANDARD_REQUIRED ON
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden CUDA_VISIBILITY_PRESET hidden)
endfunction()
