# Man pages (roff sources in man/, compressed as Debian wants them), the bash
# completion, and each package's copyright and changelog.
set(QV_DEB_NAME ${QV_DEB_RUNTIME})
configure_file(changelog.Debian.in changelog.Debian @ONLY)
set(compressed)
foreach(source man/qvstore.1 man/quorvendale-apphost.1 ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian)
  get_filename_component(name ${source} NAME)
  configure_file(${source} ${CMAKE_CURRENT_BINARY_DIR}/${name} @ONLY)
  add_custom_command(OUTPUT ${name}.gz
    COMMAND gzip -9nkf ${name}
    DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/${name}
    COMMENT "Compressing ${name}")
  list(APPEND compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
endforeach()
add_custom_target(Documentation ALL DEPENDS ${compressed})

set(manDir ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvstore.1.gz DESTINATION ${manDir} COMPONENT tools)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvendale-apphost.1.gz DESTINATION ${manDir}
        COMPONENT service)
install(FILES qvstore.bash-completion RENAME qvstore
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
# One changelog serves them all: the same source and version.
foreach(component runtime service dev tools python)
  string(TOUPPER ${component} upper)
  install(FILES copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${QV_DEB_${upper}} COMPONENT ${component})
endforeach()
