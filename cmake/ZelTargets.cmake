# What every target of this project is built with. Nothing here reaches a consumer's targets.
include(GenerateExportHeader)

option(ZEL_STRICT "Treat warnings as errors (set by the project's own presets)" OFF)
mark_as_advanced(ZEL_STRICT)

# zel_target_defaults(TARGET): moc, Qt's strict definitions, warnings.
function(zel_target_defaults target)
    set_target_properties(${target} PROPERTIES AUTOMOC ON CXX_EXTENSIONS OFF)
    target_compile_features(${target} PRIVATE cxx_std_20)
    target_compile_definitions(${target} PRIVATE QT_NO_KEYWORDS QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII)
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual)
        if(ZEL_STRICT)
            target_compile_options(${target} PRIVATE -Werror)
        endif()
    endif()
endfunction()

# zel_add_output_test(TARGET [FOLDER]): the program prints what expected.txt says, beside its sources or in the folder.
function(zel_add_output_test target)
    if(NOT ZEL_BUILD_TESTS)
        return()
    endif()
    add_test(NAME example-${target}
        COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${target}>
            -DEXPECTED=${CMAKE_CURRENT_SOURCE_DIR}/${ARGV1}/expected.txt
            -P ${PROJECT_SOURCE_DIR}/cmake/CompareOutput.cmake)
    set_tests_properties(example-${target} PROPERTIES TIMEOUT 60)
endfunction()

# zel_add_library(TARGET NAME <name> FOLDER <folder> EXPORT_BASE <base> SOURCES ... HEADERS ...)
#
#   NAME         what users link: zel::<name>
#   FOLDER       what users include: <zel/<folder>/Header.h>, inside the build tree through generated forwarders
#   EXPORT_BASE  prefix of the export macros: <base>_EXPORT
#   HEADERS      the public headers
function(zel_add_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME;FOLDER;EXPORT_BASE" "SOURCES;HEADERS")

    if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
        set(type STATIC)
    else()
        set(type SHARED)
    endif()
    add_library(${target} ${type} ${arg_SOURCES} ${arg_HEADERS})
    add_library(zel::${arg_NAME} ALIAS ${target})
    zel_target_defaults(${target})
    target_compile_features(${target} PUBLIC cxx_std_20)
    # Release builds keep file, line and function of a log message.
    target_compile_definitions(${target} PRIVATE QT_MESSAGELOGCONTEXT)
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
    endif()
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${arg_NAME}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON
        INSTALL_RPATH $<IF:$<PLATFORM_ID:Darwin>,@loader_path,$ORIGIN>)

    set(include_root ${PROJECT_BINARY_DIR}/include)
    set(include_folder ${include_root}/zel/${arg_FOLDER})
    string(TOLOWER ${arg_EXPORT_BASE} export_file)
    generate_export_header(${target}
        BASE_NAME ${arg_EXPORT_BASE}
        EXPORT_FILE_NAME ${include_folder}/${export_file}_export.h)
    if(type STREQUAL "STATIC")
        target_compile_definitions(${target} PUBLIC ${arg_EXPORT_BASE}_STATIC_DEFINE)
    endif()

    foreach(header IN LISTS arg_HEADERS)
        get_filename_component(name ${header} NAME)
        file(CONFIGURE
            OUTPUT ${include_folder}/${name}
            CONTENT "#include \"${CMAKE_CURRENT_SOURCE_DIR}/${header}\"\n")
    endforeach()
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${include_root}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

    if(ZEL_INSTALL)
        install(TARGETS ${target}
            EXPORT ZelTasksTargets
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
            RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
        install(FILES ${arg_HEADERS} ${include_folder}/${export_file}_export.h
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel/${arg_FOLDER}
            COMPONENT development)
    endif()
endfunction()
