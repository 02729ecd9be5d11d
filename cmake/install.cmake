# What `cmake --install` puts in place: the library in both forms, its headers (flat), the files by
# which pkg-config and CMake find it, the tool with bash's completion, the manual pages.
include(CMakePackageConfigHelpers)

set_target_properties(rtc PROPERTIES EXPORT_NAME rtc)
set_target_properties(rtcStatic PROPERTIES EXPORT_NAME rtc-static)
install(TARGETS rtc rtcStatic EXPORT librtcTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${RTC_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/librtc)
install(TARGETS bypass_cmd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# Relative to the file itself, so that an installed tree can be moved or staged.
file(RELATIVE_PATH RTC_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/librtc.pc.in librtc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/librtc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(RTC_CMAKE_DIRECTORY ${CMAKE_INSTALL_LIBDIR}/cmake/librtc)
configure_package_config_file(cmake/librtcConfig.cmake.in librtcConfig.cmake
                              INSTALL_DESTINATION ${RTC_CMAKE_DIRECTORY})
write_basic_package_version_file(librtcConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/librtcConfig.cmake
              ${PROJECT_BINARY_DIR}/librtcConfigVersion.cmake
        DESTINATION ${RTC_CMAKE_DIRECTORY})
install(EXPORT librtcTargets NAMESPACE librtc:: DESTINATION ${RTC_CMAKE_DIRECTORY})

configure_file(docs/bypass_cmd.8.in bypass_cmd.8 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/bypass_cmd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/bypass_cmd.bash RENAME bypass_cmd
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
configure_file(docs/librtc.3.in librtc.3 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/librtc.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)

# Not installed: the API reference that `./dev docs` makes of the same headers.
list(JOIN RTC_PUBLIC_HEADERS " " RTC_DOCS_INPUT)
configure_file(docs/Doxyfile.in Doxyfile @ONLY)
