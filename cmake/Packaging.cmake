# Debian packages of the installed components, made with `cpack -G DEB`
# (scripts/package.sh) from a tree configured with CMAKE_INSTALL_PREFIX=/usr:
#   libolk<SOVERSION>  component runtime: the shared library and olkctl;
#                      its dependencies come from dpkg-shlibdeps, and it
#                      ships a shlibs file so agents' packages depend on it.
#   libolk-dev         component dev: headers, CMake package, pkg-config file;
#                      depends on the runtime of the very same version and on
#                      the -dev packages of headers our public headers include.
# The package version is the project version, which CHANGELOG.md must head.

file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md OLK_CHANGELOG_HEAD REGEX "^## " LIMIT_COUNT 1)
if(NOT OLK_CHANGELOG_HEAD MATCHES "^## ${PROJECT_VERSION}( |$)")
  message(FATAL_ERROR "CHANGELOG.md starts with '${OLK_CHANGELOG_HEAD}', not with the "
                      "project version ${PROJECT_VERSION}: add its entry")
endif()

set(OLK_RUNTIME_PACKAGE libolk${PROJECT_VERSION_MAJOR})
set(OLK_PACKAGE_RELEASE 1)
foreach(component runtime dev)
  if(component STREQUAL "runtime")
    set(package ${OLK_RUNTIME_PACKAGE})
  else()
    set(package libolk-dev)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_PACKAGE_NAME libolk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libOlk maintainers")
set(CPACK_PACKAGE_CONTACT "libOlk maintainers <maintainers@users.noreply.c-seed-f3aed0e3.example>")
# Each package's description: its first line is the package's summary.
set(OLK_DESCRIPTION
  "libOlk is a C++20 library of building blocks for agent processes on a
networking platform: cuckoo placement into hardware hash tables, a timer
wheel, a cooperative task scheduler, allocators, id sets, a transaction
coordinator between agents, a prefix trie, an operator command socket and
system helpers.")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "agent building blocks - shared library and olkctl\n${OLK_DESCRIPTION}\n
This package holds the shared library and olkctl, the operator's client
for an agent's command socket.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "agent building blocks - development files\n${OLK_DESCRIPTION}\n
This package holds the headers, the CMake package (find_package(Olk)) and
the pkg-config file (olk).")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${OLK_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The debugging symbols go to a libolk0-dbgsym .ddeb beside the packages.
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${OLK_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# olkctl links the library it is packaged with; dpkg-shlibdeps finds it here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libolk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# DumpContext.h includes zlib.h; every other public include is the C++
# standard library's or libc's, which any compiler brings.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${OLK_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}-${OLK_PACKAGE_RELEASE}), zlib1g-dev")

include(CPack)
