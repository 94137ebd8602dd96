# What is installed besides the libraries and their headers: the CMake package, a .pc file per library, and the settings
# for Debian packages.
include(CMakePackageConfigHelpers)

set(zel_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ZelTasks)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZelTasksConfig.cmake.in ZelTasksConfig.cmake
    INSTALL_DESTINATION ${zel_package_folder}
    PATH_VARS zel_translations_folder)
write_basic_package_version_file(ZelTasksConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT ZelTasksTargets
    NAMESPACE zel::
    DESTINATION ${zel_package_folder}
    COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/ZelTasksConfig.cmake ${PROJECT_BINARY_DIR}/ZelTasksConfigVersion.cmake
    DESTINATION ${zel_package_folder}
    COMPONENT development)

# From the folder of the .pc files, so that the installed tree can be moved; unless the folders were set as absolute ones.
file(RELATIVE_PATH zel_pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
set(zel_pc_prefix \${pcfiledir}/${zel_pc_prefix})
foreach(folder IN ITEMS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR zel_translations_folder)
    if(IS_ABSOLUTE ${${folder}})
        set(zel_pc_${folder} ${${folder}})
    else()
        set(zel_pc_${folder} \${prefix}/${${folder}})
    endif()
endforeach()
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(zel_pc_prefix ${CMAKE_INSTALL_PREFIX})
endif()
# Not every version of QCoro has a .pc file to refer to.
get_target_property(zel_pc_qcoro_flags QCoro6::Coro INTERFACE_INCLUDE_DIRECTORIES)
list(REMOVE_ITEM zel_pc_qcoro_flags /usr/include)
list(TRANSFORM zel_pc_qcoro_flags PREPEND -I)
list(JOIN zel_pc_qcoro_flags " " zel_pc_qcoro_flags)
foreach(library IN ITEMS zel_common_stable zel_tasks)
    get_target_property(zel_pc_flags ${library} INTERFACE_COMPILE_DEFINITIONS)
    if(zel_pc_flags)
        list(TRANSFORM zel_pc_flags PREPEND -D)
        list(JOIN zel_pc_flags " " zel_pc_flags)
    else()
        set(zel_pc_flags)
    endif()
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${library}.pc.in ${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
endforeach()

# cpack -G DEB: libzel-tasks and libzel-tasks-dev.
foreach(part IN ITEMS runtime:libzel-tasks development:libzel-tasks-dev)
    string(REGEX MATCH "(.*):(.*)" part ${part})
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CMAKE_MATCH_2}
        COMPONENT ${CMAKE_MATCH_1}
        RENAME copyright)
endforeach()
set(CPACK_PACKAGE_NAME zel-tasks)
set(CPACK_PACKAGE_VENDOR "the zel_tasks developers")
set(CPACK_PACKAGE_CONTACT "the zel_tasks developers <zel_tasks@localhost>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/common ${PROJECT_BINARY_DIR}/tasks)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel-tasks)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "tasks, groups and queues for Qt 6 applications: the libraries")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzel-tasks-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libzel-tasks (= ${PROJECT_VERSION}), qt6-base-dev (>= 6.4), qcoro-qt6-dev (>= 0.8)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "tasks, groups and queues for Qt 6 applications: what programs are built with")
if(zel_top_level)
    include(CPack)
endif()
