# Components: runtime (what other makers' programs load), tools (the programs), dev (headers).
#
# The programs that load the database library look for its framework folder beside themselves. So
# they lie with it in lib/convey, and bin/ holds links, which the programs resolve. All paths between
# them are relative: an installation may be staged (DESTDIR) or moved.
set(CONVEY_PROGRAM_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/convey)
install(TARGETS KivraConveyCmd convey_program
    RUNTIME DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR} COMPONENT tools)
install(TARGETS ovrel_caps ovrel_caps_config
    LIBRARY DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR}/ovrel_caps.framework COMPONENT runtime)
install(TARGETS ovrel-caps RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS convey EXPORT ConveyTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/convey COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/convey ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES c/include/convey.h caps/include/ovrel_caps.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

set(CONVEY_LINKED_PROGRAMS KivraConveyCmd convey)
set(CONVEY_COMPLETIONS tools/convey/completion/convey caps/tool/completion/ovrel-caps)
if(CONVEY_LINK)
    install(TARGETS convey-link
        RUNTIME DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR} COMPONENT tools)
    list(APPEND CONVEY_LINKED_PROGRAMS convey-link)
    list(APPEND CONVEY_COMPLETIONS link/completion/convey-link)
    configure_file(link/convey-link.service.in convey-link.service @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/convey-link.service
        DESTINATION lib/systemd/user COMPONENT tools)
    install(DIRECTORY examples/link/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/convey-link/examples
        COMPONENT tools)
endif()

file(RELATIVE_PATH CONVEY_LINK_FOLDER
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/convey)
install(CODE "
    set(folder \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${folder}\")
    foreach(program ${CONVEY_LINKED_PROGRAMS})
        message(STATUS \"Installing: \$ENV{DESTDIR}\${folder}/\${program}\")
        file(CREATE_LINK \"${CONVEY_LINK_FOLDER}/\${program}\"
            \"\$ENV{DESTDIR}\${folder}/\${program}\" SYMBOLIC)
        list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${folder}/\${program}\")
    endforeach()
" COMPONENT tools)

foreach(completion ${CONVEY_COMPLETIONS})
    cmake_path(GET completion FILENAME program)
    cmake_path(GET completion PARENT_PATH folder)
    install(FILES ${completion}.bash RENAME ${program}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
    install(FILES ${folder}/_${program}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
    install(FILES ${completion}.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
endforeach()

# find_package(Convey): the layer needs nothing of its users but a compiler.
include(CMakePackageConfigHelpers)
set(CONVEY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Convey)
install(EXPORT ConveyTargets NAMESPACE Convey:: FILE ConveyConfig.cmake
    DESTINATION ${CONVEY_CMAKE_DIR} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ConveyConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ConveyConfigVersion.cmake
    DESTINATION ${CONVEY_CMAKE_DIR} COMPONENT dev)

# pkg-config convey: found where the file lies, wherever that is moved to.
file(RELATIVE_PATH CONVEY_PC_PREFIX
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/convey.pc.in convey.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/convey.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
