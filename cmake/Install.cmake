# The programs lie in lib/convey with the database's framework folder beside them, where they look
# for it; bin/ holds links, which the programs resolve.
include(GNUInstallDirs)
set(CONVEY_PROGRAM_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/convey)
install(TARGETS KivraConveyCmd RUNTIME DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR} COMPONENT tools)
install(TARGETS ovrel_caps
    LIBRARY DESTINATION ${CONVEY_PROGRAM_INSTALL_DIR}/ovrel_caps.framework COMPONENT runtime)
install(TARGETS ovrel-caps RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
file(RELATIVE_PATH CONVEY_LINK_TARGET ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_FULL_LIBDIR}/convey/KivraConveyCmd)
install(CODE "
    set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\${folder}\")
    file(CREATE_LINK \"${CONVEY_LINK_TARGET}\" \"\${folder}/KivraConveyCmd\" SYMBOLIC)
" COMPONENT tools)
