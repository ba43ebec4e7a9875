# What every target of this project has in common.

# Warnings, the language level and the sanitizers; never handed on to users of the libraries.
add_library(project_options INTERFACE)
target_compile_features(project_options INTERFACE cxx_std_20)
target_compile_options(project_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Wold-style-cast -Woverloaded-virtual -Wcast-qual -Wundef)
if(QVENDPOINTREGISTRY_SANITIZE)
    target_compile_options(project_options INTERFACE
        -fsanitize=${QVENDPOINTREGISTRY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(project_options INTERFACE -fsanitize=${QVENDPOINTREGISTRY_SANITIZE})
endif()

# The two include roots, as public headers are written against them.
set(project_include_roots ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform)

# add_project_library(<name> SOURCES ... PUBLIC_HEADERS ... [LINK ...] [PRIVATE_LINK ...])
#
# A shared library with hidden visibility, installed with its headers, and a static twin
# <name>_internals of the same objects, through which tests reach what the shared one hides.
function(add_project_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC_HEADERS;LINK;PRIVATE_LINK")

    add_library(${name}_objects OBJECT ${arg_SOURCES})
    set_target_properties(${name}_objects PROPERTIES
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    target_include_directories(${name}_objects PRIVATE ${project_include_roots})
    target_link_libraries(${name}_objects PRIVATE project_options ${arg_LINK} ${arg_PRIVATE_LINK})

    add_library(${name} SHARED)
    add_library(qvagentspfendpointregistry::${name} ALIAS ${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        INSTALL_RPATH "$ORIGIN")

    # Nobody installs the twin; tests that use it get the other libraries as users do.
    add_library(${name}_internals STATIC EXCLUDE_FROM_ALL)

    foreach(target ${name} ${name}_internals)
        target_link_libraries(${target}
            PRIVATE $<BUILD_INTERFACE:${name}_objects> $<BUILD_INTERFACE:project_options>
            PUBLIC ${arg_LINK})
        foreach(dependency ${arg_PRIVATE_LINK})
            target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:${dependency}>)
        endforeach()
        target_include_directories(${target} PUBLIC
            "$<BUILD_INTERFACE:${project_include_roots}>"
            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    endforeach()

    target_compile_features(${name} PUBLIC cxx_std_17)
    install(TARGETS ${name} EXPORT qvagentspfendpointregistry_targets
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install_headers(${arg_PUBLIC_HEADERS})
endfunction()

# Installs headers under the paths that they are included by.
function(install_headers)
    foreach(header ${ARGN})
        cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR}
                   OUTPUT_VARIABLE folder)
        string(REGEX REPLACE "^platform/?" "" folder "${folder}")
        cmake_path(GET header PARENT_PATH below)
        install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}/${below})
        set_property(GLOBAL APPEND PROPERTY project_public_headers
                     ${CMAKE_CURRENT_SOURCE_DIR}/${header})
    endforeach()
endfunction()
