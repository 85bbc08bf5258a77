# The Debian package (cpack -G DEB, which scripts/package runs): what `cmake --install`
# puts under /usr, plus control fields a Debian user expects. Depends is computed from
# the program's shared libraries by dpkg-shlibdeps; the secret store and the sound server
# are services the program reaches over D-Bus and a socket, so they are recommended, not
# linked: without them linking or recording fails with the program's own message.
set(SELVARO_PACKAGE_MAINTAINER "Selvaro <support@selvaro.app>" CACHE STRING "Maintainer of the Debian package")
set(SELVARO_HOMEPAGE "https://selvaro.app" CACHE STRING "Homepage named by the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME selvaro-recorder)
set(CPACK_PACKAGE_VENDOR Selvaro)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${SELVARO_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "record system audio and the microphone into Selvaro notes")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Selvaro Recorder records what the computer plays together with the
microphone - a call, a meeting, a video - mixes the two into one stereo
AAC file and sends it to the Selvaro note service, which writes a note
from it that appears in the phone app. The computer is linked to the
account once, by a device code shown as text and as a QR code.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT) # selvaro-recorder_<version>_<arch>.deb
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${SELVARO_HOMEPAGE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "gnome-keyring | kwalletmanager | keepassxc, pipewire-pulse | pulseaudio")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
