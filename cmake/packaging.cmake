# The man page and bash completion (generated from the usage text, the
# dispatch table and docs/commands.md), their installation, and the Debian
# packages: "vtest" for a unit, "vantor-sim" for the simulator (install
# component "simulator", packaged when sim/ installs one).
#   cmake --build <dir> && (cd <dir> && cpack -G DEB)
find_package(Python3 COMPONENTS Interpreter REQUIRED)

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
          ${PROJECT_SOURCE_DIR}/vtest/main.cpp ${PROJECT_SOURCE_DIR}/docs/commands.md
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

set(CPACK_DEBIAN_VTEST_PACKAGE_NAME vtest)
set(CPACK_COMPONENT_VTEST_DESCRIPTION "test and diagnostic tool for vantor units
Runs SQL against a unit's database, monitors tables, discovers and
re-addresses units, checks backlogs, runs daemon commands, sends a test
mail, converts times, resets USB hubs and prints ELF information.")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME vantor-sim)
set(CPACK_COMPONENT_SIMULATOR_DESCRIPTION "simulated vantor unit for trying vtest
Serves the database shell, the daemon command channel and discovery on
one machine. Not for installation on a unit.")

# Only the tool and the simulator are packaged, each on its own.
get_cmake_property(VTEST_INSTALL_COMPONENTS COMPONENTS)
set(CPACK_COMPONENTS_ALL vtest)
if(simulator IN_LIST VTEST_INSTALL_COMPONENTS)
  list(APPEND CPACK_COMPONENTS_ALL simulator)
endif()
include(CPack)
