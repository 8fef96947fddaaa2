# Helpers that keep the build free of per-file bookkeeping: a folder's sources are globbed,
# so adding a type means adding its .h/.cpp pair and nothing else.

# orvel_library(folder deps...): library orvel_<folder> from src/<folder>/**.cpp.
function(orvel_library folder)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${folder}/*.cpp)
    list(FILTER sources EXCLUDE REGEX ".*/src/app/main\\.cpp$")
    if(sources)
        add_library(orvel_${folder} STATIC ${sources})
        target_include_directories(orvel_${folder} PUBLIC ${CMAKE_SOURCE_DIR}/src)
        target_link_libraries(orvel_${folder} PUBLIC ${ARGN})
        target_compile_definitions(orvel_${folder} PRIVATE
            ORVEL_BUILD_VERSION="${ORVEL_BUILD_VERSION}"
            ORVEL_AUTOMATIC_UPDATES=$<BOOL:${ORVEL_AUTOMATIC_UPDATES}>
            ORVEL_BUILD_FOLDER="${CMAKE_BINARY_DIR}")
    else()
        add_library(orvel_${folder} INTERFACE)
        target_include_directories(orvel_${folder} INTERFACE ${CMAKE_SOURCE_DIR}/src)
        target_link_libraries(orvel_${folder} INTERFACE ${ARGN})
    endif()
endfunction()

# orvel_tests(folder): one GoogleTest binary <folder>_tests from tests/<folder>/*.cpp.
# Every test gets a hang guard; no test relies on timing.
function(orvel_tests folder)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${folder}/*.cpp)
    if(NOT sources)
        return()
    endif()
    add_executable(${folder}_tests ${sources})
    target_include_directories(${folder}_tests PRIVATE ${CMAKE_SOURCE_DIR}/tests)
    target_link_libraries(${folder}_tests PRIVATE orvel_${folder} GTest::gmock GTest::gtest_main)
    # GoogleTest's headers and the task runtime are most of every test file's compile time.
    target_precompile_headers(${folder}_tests PRIVATE <gmock/gmock.h> <gtest/gtest.h> "${CMAKE_SOURCE_DIR}/src/async/Async.h")
    target_compile_definitions(${folder}_tests PRIVATE
        ORVEL_SOURCE_DIR="${CMAKE_SOURCE_DIR}" ORVEL_BINARY_DIR="${CMAKE_BINARY_DIR}")
    include(GoogleTest)
    gtest_discover_tests(${folder}_tests DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 300 LABELS ${folder})
endfunction()

# checkheaders: one translation unit per public header, so every header compiles alone.
function(orvel_check_headers)
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/*.h)
    set(units)
    foreach(header ${headers})
        file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR}/src ${header})
        string(MAKE_C_IDENTIFIER ${rel} id)
        set(unit ${CMAKE_BINARY_DIR}/checkheaders/${id}.cpp)
        file(CONFIGURE OUTPUT ${unit} CONTENT "#include \"${rel}\"\n")
        list(APPEND units ${unit})
    endforeach()
    if(units)
        add_library(checkheaders OBJECT EXCLUDE_FROM_ALL ${units})
        target_link_libraries(checkheaders PRIVATE orvel_app)
    endif()
endfunction()
