# The man page and bash completion (generated from the usage text, the
# dispatch table and docs/commands.md), their installation, and the Debian
# packages: "vtest" for a unit, "vantor-sim" for the simulator (install
# component "simulator", packaged when sim/ installs one).
#   cmake --build <dir> && (cd <dir> && cpack -G DEB)
find_package(Python3 COMPONENTS Interpreter REQUIRED)
# The handlers tell which commands are built (see gen-cli-docs.py).
file(GLOB VTEST_HANDLER_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/vtest/*.cpp)

set(VTEST_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
set(VTEST_MAN_PAGE ${VTEST_DOCS_DIR}/vtest.1)
set(VTEST_COMPLETION ${VTEST_DOCS_DIR}/vtest.bash)
add_custom_command(
  OUTPUT ${VTEST_MAN_PAGE} ${VTEST_COMPLETION} ${VTEST_MAN_PAGE}.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${VTEST_DOCS_DIR}
  COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/scripts/gen-cli-docs.py --source ${PROJECT_SOURCE_DIR}
          --version ${PROJECT_VERSION} --man ${VTEST_MAN_PAGE} --completion ${VTEST_COMPLETION}
  COMMAND gzip -9nf -k ${VTEST_MAN_PAGE}
  DEPENDS ${PROJECT_SOURCE_DIR}/scripts/gen-cli-docs.py ${PROJECT_SOURCE_DIR}/vtest/usage.cpp
          ${PROJECT_SOURCE_DIR}/vtest/main.cpp ${VTEST_HANDLER_SOURCES} ${PROJECT_SOURCE_DIR}/docs/commands.md
          ${PROJECT_SOURCE_DIR}/docs/man/vtest.1.md
  COMMENT "Generating vtest(1) and its bash completion")
add_custom_target(vtest-docs ALL DEPENDS ${VTEST_MAN_PAGE} ${VTEST_MAN_PAGE}.gz ${VTEST_COMPLETION})
if(TARGET cli_docs_test)
  target_compile_definitions(cli_docs_test PRIVATE VTEST_MAN_PAGE="${VTEST_MAN_PAGE}"
                             VTEST_COMPLETION="${VTEST_COMPLETION}")
  add_dependencies(cli_docs_test vtest-docs)
endif()

install(FILES ${VTEST_MAN_PAGE}.gz DESTINATION share/man/man1 COMPONENT vtest)
install(FILES ${VTEST_COMPLETION} DESTINATION share/bash-completion/completions RENAME vtest COMPONENT vtest)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/commands.md
        DESTINATION share/doc/vtest COMPONENT vtest)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vtest)
set(CPACK_PACKAGE_VENDOR vantor)
set(CPACK_PACKAGE_CONTACT "vantor maintainers <vantor@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg would name the build host's architecture, not the one built for.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

# The description names the commands this build has, found in the handlers
# (a placeholder only calls command_unavailable), so a command that lands
# changes it without an edit here.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VTEST_HANDLER_SOURCES}
             ${PROJECT_SOURCE_DIR}/scripts/gen-cli-docs.py)
execute_process(
  COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/gen-cli-docs.py --source ${PROJECT_SOURCE_DIR}
          --version ${PROJECT_VERSION} --package-description
  OUTPUT_VARIABLE VTEST_PACKAGE_TEXT OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE VTEST_PACKAGE_RV)
if(NOT VTEST_PACKAGE_RV EQUAL 0)
  message(FATAL_ERROR "gen-cli-docs.py --package-description failed")
endif()
set(CPACK_DEBIAN_VTEST_PACKAGE_NAME vtest)
set(CPACK_COMPONENT_VTEST_DESCRIPTION "test and diagnostic tool for vantor units\n${VTEST_PACKAGE_TEXT}")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME vantor-sim)
set(CPACK_COMPONENT_SIMULATOR_DESCRIPTION "simulated vantor unit for trying vtest
Serves the database shell (SQL statements and table monitoring) on one
machine. Not for installation on a unit.")

# Only the tool and the simulator are packaged, each on its own.
get_cmake_property(VTEST_INSTALL_COMPONENTS COMPONENTS)
set(CPACK_COMPONENTS_ALL vtest)
if(simulator IN_LIST VTEST_INSTALL_COMPONENTS)
  list(APPEND CPACK_COMPONENTS_ALL simulator)
endif()
include(CPack)
