# What every target of this project has in common.

# Warnings, the language level and the sanitizers; never handed on to users of the library.
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

# add_layer(<name> SOURCES ... [PUBLIC_HEADERS ...] [LINK ...])
#
# A static library of which only what its public headers declare is visible. All layers together
# make the shared library; tests link single ones, to reach what the shared library hides.
function(add_layer name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC_HEADERS;LINK")

    add_library(${name} STATIC EXCLUDE_FROM_ALL ${arg_SOURCES})
    set_target_properties(${name} PROPERTIES
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    target_include_directories(${name} PUBLIC ${project_include_roots})
    target_link_libraries(${name} PRIVATE project_options ${arg_LINK})
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
