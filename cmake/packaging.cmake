# What goes with the programs: manual pages, documents, examples and completion; and the Debian package, see
# packaging/make-package.sh.

option(ZENDAR_PACKAGE "Leave the folder of the sources out of the programs" OFF)
if(ZENDAR_PACKAGE)
    add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

set(zendar_programs zendar zendar-matrices zendar-simulate)
list(TRANSFORM zendar_programs PREPEND ${PROJECT_SOURCE_DIR}/docs/man/ OUTPUT_VARIABLE man_pages)
list(TRANSFORM man_pages APPEND .1)
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

list(TRANSFORM zendar_programs PREPEND ${PROJECT_SOURCE_DIR}/packaging/completion/ OUTPUT_VARIABLE completions)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN man EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "ZENDAR developers")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "solver of mixed model equations for genetic evaluations")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Solves multi-trait linear mixed models of animal breeding, with pedigrees,
genotypes or both, by iteration on the data or in memory. It also prepares
the matrices of animals with genotypes, and simulates populations.")
# The libraries that the linker has recorded. The programs are tied to the OpenMP flavour of OpenBLAS by their RPATH,
# while the name of the library is an alternative that any flavour provides.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(OPENBLAS_OMP AND ZENDAR_BLAS_RPATH)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS libopenblas0-openmp)
endif()
include(CPack)
