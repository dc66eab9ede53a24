# The libraries that the service is built on. A missing one ends the configuration with the name of the
# Debian package that brings it.

# PCRE 1, which Debian has up to release 12; else PCRE2 through the stand-in of this project.
add_library(PCRE::pcre INTERFACE IMPORTED)
find_path(PCRE_INCLUDE_DIR pcre.h)
find_library(PCRE_LIBRARY pcre)
find_path(PCRE2_INCLUDE_DIR pcre2.h)
find_library(PCRE2_LIBRARY pcre2-8)
mark_as_advanced(PCRE_INCLUDE_DIR PCRE_LIBRARY PCRE2_INCLUDE_DIR PCRE2_LIBRARY)
if(PCRE_INCLUDE_DIR AND PCRE_LIBRARY AND NOT VEL4_PCRE2)
  target_include_directories(PCRE::pcre INTERFACE ${PCRE_INCLUDE_DIR})
  target_link_libraries(PCRE::pcre INTERFACE ${PCRE_LIBRARY})
  message(STATUS "PCRE: version 1, ${PCRE_LIBRARY}")
elseif(PCRE2_INCLUDE_DIR AND PCRE2_LIBRARY)
  target_include_directories(PCRE::pcre INTERFACE ${PROJECT_SOURCE_DIR}/compat/pcre)
  target_link_libraries(PCRE::pcre INTERFACE ${PCRE2_LIBRARY})
  message(STATUS "PCRE: version 2 through the bundled stand-in, ${PCRE2_LIBRARY}")
else()
  message(FATAL_ERROR "PCRE is missing: install the Debian package libpcre3-dev or libpcre2-dev")
endif()

find_path(cpptoml_INCLUDE_DIR cpptoml.h)
mark_as_advanced(cpptoml_INCLUDE_DIR)
if(NOT cpptoml_INCLUDE_DIR)
  message(FATAL_ERROR "cpptoml is missing: install the Debian package libcpptoml-dev")
endif()
add_library(cpptoml::headers INTERFACE IMPORTED)
target_include_directories(cpptoml::headers SYSTEM INTERFACE ${cpptoml_INCLUDE_DIR})

# Boost.System has no library of its own any more from Boost 1.89 on.
find_package(Boost CONFIG QUIET COMPONENTS filesystem OPTIONAL_COMPONENTS system)
if(NOT TARGET Boost::filesystem)
  message(FATAL_ERROR
    "Boost.Filesystem is missing: install the Debian package libboost-filesystem-dev")
endif()

# Lyra: an installed one of release 1.6 or later, else the stand-in of this project. An installed Lyra
# has no version file; its header tells the release.
add_library(lyra_headers INTERFACE)
find_package(lyra CONFIG QUIET)

if(TARGET bfg::lyra)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_LIBRARIES bfg::lyra)
  set(CMAKE_REQUIRED_FLAGS -std=c++17)
  check_cxx_source_compiles("
    #include <lyra/lyra.hpp>
    static_assert(LYRA_VERSION >= 10600000, \"too old\");
    int main() {}" lyra_is_usable)
endif()
if(lyra_is_usable)
  target_link_libraries(lyra_headers INTERFACE bfg::lyra)
  message(STATUS "Lyra: the installed one")
else()
  target_include_directories(lyra_headers INTERFACE ${PROJECT_SOURCE_DIR}/compat)
  message(STATUS "Lyra: the bundled stand-in, compat/lyra (no installed release 1.6 or later)")
endif()
