# sl3d_add_sources(file...): adds a module's sources to the library objects.
function(sl3d_add_sources)
  foreach(src ${ARGN})
    target_sources(sl3d_objects PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/${src})
  endforeach()
endfunction()

# sl3d_add_public_headers(file...): headers a caller of the library needs,
# installed as include/sl3d/<module folder>/<file>. Headers not listed (the
# tool's, test helpers, internal ones) stay in the source tree.
function(sl3d_add_public_headers)
  file(RELATIVE_PATH module ${PROJECT_SOURCE_DIR}/src ${CMAKE_CURRENT_SOURCE_DIR})
  install(FILES ${ARGN} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${module})
endfunction()

# sl3d_add_test(NAME file.cpp [extra sources...]): one GoogleTest program per
# *_test.cpp file. Unit tests link the static twin of the library so they can
# reach internal helpers that the shared library keeps hidden.
function(sl3d_add_test name)
  if(NOT SL3D_BUILD_TESTS)
    return()
  endif()
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE sl3d_static GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
endfunction()
