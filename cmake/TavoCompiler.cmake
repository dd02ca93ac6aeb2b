# The flags of every target of this tree, and the function that declares a library.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# As long as the major version is 0, a new minor one breaks programs (CHANGELOG.md).
set(tavo_abi_version ${PROJECT_VERSION_MAJOR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(tavo_abi_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
endif()
# An installed tree finds its libraries by relative paths, so that it may be moved.
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Compares precompiled headers by content, and shares results with copies of this tree in other places.
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
        "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
        "${CCACHE_PROGRAM}")
endif()

add_library(tavo_flags INTERFACE)
target_compile_options(tavo_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(TAVO_WERROR)
    target_compile_options(tavo_flags INTERFACE -Werror)
endif()
# Qt's implicit conversions between bytes and text would hide encoding mistakes where text meets LDAP.
target_compile_definitions(tavo_flags INTERFACE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_KEYWORDS)
if(TAVO_SANITIZE)
    target_compile_options(tavo_flags INTERFACE -fsanitize=${TAVO_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    target_link_options(tavo_flags INTERFACE -fsanitize=${TAVO_SANITIZE})
endif()
if(TAVO_COVERAGE)
    target_compile_options(tavo_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(tavo_flags INTERFACE --coverage)
endif()

# tavo_library(utils INCLUDE_ROOT folder SOURCES ... HEADERS ... PUBLIC libs... PRIVATE libs...)
# declares libtavo_<name>.so as the target tavo_<name> with the alias tavo::<name>. INCLUDE_ROOT is the folder on the
# include path: `support` for the support libraries, the top folder for `ldap`.
function(tavo_library name)
    cmake_parse_arguments(ARG "" "INCLUDE_ROOT" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
    set(target tavo_${name})
    add_library(${target} SHARED ${ARG_SOURCES})
    add_library(tavo::${name} ALIAS ${target})
    target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${ARG_INCLUDE_ROOT} FILES ${ARG_HEADERS})
    target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} PRIVATE $<BUILD_INTERFACE:tavo_flags> ${ARG_PRIVATE})
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${name}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${tavo_abi_version})
    set_property(GLOBAL APPEND PROPERTY TAVO_LIBRARIES ${target})
endfunction()
