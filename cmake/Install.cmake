# Components: runtime (what other makers' programs load), tools (the programs), dev (headers).
#
# The programs that load the database library look for its framework folder beside themselves. So
# they lie with it in lib/convey, and bin/ holds links, which the programs resolve. All paths between
# them are relative: an installation may be staged (DESTDIR) or moved.
set(CONVEY_PROGRAM_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/convey)
install(TARGETS KivraConveyCmd RUNTIME DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR} COMPONENT tools)
install(TARGETS ovrel_caps
    LIBRARY DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR}/ovrel_caps.framework COMPONENT runtime)
install(TARGETS ovrel-caps RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS convey EXPORT ConveyTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/convey COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/convey)
install(FILES caps/include/ovrel_caps.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

file(RELATIVE_PATH CONVEY_LINK_TARGET
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/convey/KivraConveyCmd)
install(CODE "
    set(folder \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    message(STATUS \"Installing: \$ENV{DESTDIR}\${folder}/KivraConveyCmd\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${folder}\")
    file(CREATE_LINK \"${CONVEY_LINK_TARGET}\" \"\$ENV{DESTDIR}\${folder}/KivraConveyCmd\" SYMBOLIC)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${folder}/KivraConveyCmd\")
" COMPONENT tools)

# find_package(Convey): the layer needs nothing of its users but a compiler.
include(CMakePackageConfigHelpers)
set(CONVEY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Convey)
install(EXPORT ConveyTargets NAMESPACE Convey:: FILE ConveyConfig.cmake
    DESTINATION ${CONVEY_CMAKE_DIR} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ConveyConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ConveyConfigVersion.cmake
    DESTINATION ${CONVEY_CMAKE_DIR} COMPONENT dev)
