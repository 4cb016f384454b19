# The API reference. Its text warns about every public name without documentation, and warnings are errors.
configure_file(docs/Doxyfile.in docs/Doxyfile @ONLY)
find_program(ZEB_DOXYGEN doxygen)
if(ZEB_DOXYGEN)
    add_custom_target(docs COMMAND ${ZEB_DOXYGEN} ${CMAKE_CURRENT_BINARY_DIR}/docs/Doxyfile
                      COMMENT "API reference in ${CMAKE_CURRENT_BINARY_DIR}/docs/html")
endif()
