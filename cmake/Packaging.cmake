# Install rules, the CMake package and pkg-config file a consumer builds against, and the Debian
# package (cpack -G DEB). The installed tree is relocatable: nothing in it names the prefix.
include(CMakePackageConfigHelpers)

set(STYLUS_DATA_DIR ${CMAKE_INSTALL_DATADIR}/stylus-predictor)
set(STYLUS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/StylusPredictor)
set(STYLUS_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS StylusPredictor EXPORT StylusPredictorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES models/stylus_predictor.tflite models/stylus_predictor.json models/MODEL_CARD.md
  DESTINATION ${STYLUS_DATA_DIR})
if(TARGET stylus-replay)
  # The installed replay host finds the library of its own prefix, wherever that was unpacked.
  file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(stylus-replay PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS stylus-replay RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS stylus-sample-gen RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# find_package(StylusPredictor CONFIG): the imported target, and where the shipped model lies.
install(EXPORT StylusPredictorTargets NAMESPACE StylusPredictor:: DESTINATION ${STYLUS_CMAKE_DIR})
configure_package_config_file(cmake/StylusPredictorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfig.cmake
  INSTALL_DESTINATION ${STYLUS_CMAKE_DIR} PATH_VARS STYLUS_DATA_DIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfigVersion.cmake DESTINATION ${STYLUS_CMAKE_DIR})

# pkg-config: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH STYLUS_PKGCONFIG_TO_PREFIX /${STYLUS_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" STYLUS_PKGCONFIG_TO_PREFIX "${STYLUS_PKGCONFIG_TO_PREFIX}")
configure_file(cmake/stylus-predictor.pc.in ${CMAKE_CURRENT_BINARY_DIR}/stylus-predictor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/stylus-predictor.pc DESTINATION ${STYLUS_PKGCONFIG_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME stylus-predictor)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Stylus stroke predictor: the shared library, its trained model and the replay tools")
set(CPACK_PACKAGE_CONTACT "Stylus predictor developers <stylus-predictor@localhost>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Arm NN loads its backends at run time, which no linker record shows: depend on the package that
# holds the backend this build found.
if(TALC_ARMNN_BACKEND_DIR)
  execute_process(COMMAND dpkg-query -S ${TALC_ARMNN_BACKEND_DIR}/Arm_CpuRef_backend.so
    OUTPUT_VARIABLE backend_owner RESULT_VARIABLE backend_status ERROR_QUIET)
  if(backend_status EQUAL 0 AND backend_owner MATCHES "^([^:,]+)")
    set(CPACK_DEBIAN_PACKAGE_DEPENDS ${CMAKE_MATCH_1})
  endif()
endif()
include(CPack)
