# Installation and the Debian package.
#
# `cmake --install build --prefix X` lays out X/bin/tarnwick,
# X/lib/tarnwick/libtarnwick-desktop.so (the desktop client's module) and
# X/libexec/tarnwick/kovrit-<os>-<arch> (both found by the client relative to
# its own location, as in the build tree) and the desktop files of data/.
# `cpack -G DEB` (run in the build tree) makes tarnwick_<version>_<arch>.deb
# for /usr, its dependencies computed from the binaries.
include(GNUInstallDirs)

# All three link only system libraries: no run path in the installed files.
set_target_properties(tarnwick tarnwick_desktop kovrit_dev PROPERTIES INSTALL_RPATH "")
install(TARGETS tarnwick RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
# A private module, not a library for others: the same place under every prefix (no multiarch
# folder), as the executable looks for it.
install(TARGETS tarnwick_desktop LIBRARY DESTINATION "${TARNWICK_DESKTOP_MODULE_DIR}"
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(TARGETS kovrit_dev RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/tarnwick")
# A stripped install (cpack, or cmake --install --strip) also drops the
# compilers' .comment sections, as Debian's own packaging does.
if(CMAKE_OBJCOPY)
  install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
      foreach(program \"${CMAKE_INSTALL_BINDIR}/tarnwick\"
                      \"${TARNWICK_DESKTOP_MODULE}\"
                      \"${CMAKE_INSTALL_LIBEXECDIR}/tarnwick/${KOVRIT_DEV_NAME}\")
        execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --remove-section=.comment
                        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/\${program}\"
                        COMMAND_ERROR_IS_FATAL ANY)
      endforeach()
    endif()")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnwick)
set(CPACK_PACKAGE_VENDOR "Tarnwick")
set(CPACK_PACKAGE_CONTACT "${TARNWICK_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "secure file synchronisation client")
set(CPACK_PACKAGE_DESCRIPTION
    "Tarnwick keeps the folders you choose in step with your account on the Tarnwick\n\
service, sealing what it sends with keys that never leave this computer. It\n\
runs as a tray icon with a window for signing in, the sync status and the\n\
settings, or without a window, and is controlled from the command line too.\n\
.\n\
This package also ships the development backend, a local stand-in for the\n\
service that keeps everything on this computer.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://tarnwick.app")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The screens' QML modules and the platform plugins are loaded at run time,
# so the shared-library scan cannot see them.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "qml6-module-qtqml, qml6-module-qtqml-models, qml6-module-qtqml-workerscript, \
qml6-module-qtquick, qml6-module-qtquick-controls, qml6-module-qtquick-templates, \
qml6-module-qtquick-window, qml6-module-qtquick-layouts, qml6-module-qtquick-dialogs, \
qml6-module-qtquick-shapes, qml6-module-qt-labs-platform, qt6-qpa-plugins")
# The sign-in code notification, opening folders in the file manager, and Qt's own
# texts (dialogs, standard buttons) in the user's language.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libnotify-bin, xdg-utils, qt6-translations-l10n")
set(CPACK_SOURCE_GENERATOR "")
include(CPack)
