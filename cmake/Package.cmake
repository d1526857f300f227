# The Debian package: `cpack -G DEB` in any configured build (scripts/package uses a release one).
# Its dependencies are the shared libraries' packages (dpkg-shlibdeps) and the runtime packages
# no library names: the QML modules the window imports, the camera's media back end, and the
# desktop's link handling.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmorand-connect)
set(CPACK_PACKAGE_VENDOR Velmorand)
set(CPACK_PACKAGE_CONTACT "Velmorand Connect developers <connect@velmorand.co>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stream and operate this device from the Velmorand dashboard")
# The extended description, as Debian shows it: lines under 80 columns, a blank line between
# paragraphs.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "Velmorand Connect pairs this computer with the Velmorand dashboard, by a\n"
    "typed access key, a scanned QR code or a pair link. Once paired, it\n"
    "broadcasts the screen to the dashboard's viewers and carries out their\n"
    "remote-control commands, on X11 and Wayland desktops.\n"
    "\n"
    "The package holds the application, the velmorand command-line program, the\n"
    "upload extension that captures and streams the screen, and a user service\n"
    "that runs the broadcast on a device without a screen of its own.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://velmorand.co")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
string(JOIN ", " CPACK_DEBIAN_PACKAGE_DEPENDS
  qml6-module-qtqml-workerscript qml6-module-qtquick qml6-module-qtquick-controls
  qml6-module-qtquick-dialogs qml6-module-qtquick-layouts qml6-module-qtquick-templates
  qml6-module-qtquick-window qml6-module-qt-labs-folderlistmodel qml6-module-qtmultimedia
  gstreamer1.0-plugins-base xdg-utils)
# Wayland desktops: the window's platform plug-in, and the portal that asks the person at the
# device before the screen is shared. Peer-to-peer video: GStreamer's WebRTC, RTP and ICE
# plug-ins (without them the device tells the service it cannot, and streams through the relay).
string(JOIN ", " CPACK_DEBIAN_PACKAGE_RECOMMENDS qt6-wayland xdg-desktop-portal
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-good gstreamer1.0-nice)
include(CPack)
