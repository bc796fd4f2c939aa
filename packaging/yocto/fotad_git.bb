SUMMARY = "Firmware-over-the-air update daemon"
LICENSE = "CLOSED"
# Where you keep the sources.
SRC_URI = "git://git.example.org/fotad.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
PV = "0.1.0+git"
S = "${WORKDIR}/git"

inherit cmake pkgconfig python3-dir systemd useradd

DEPENDS = "openssl pugixml"
PACKAGECONFIG ??= "${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)} tools"
PACKAGECONFIG[systemd] = "-DFOTA_PLATFORM=systemd,-DFOTA_PLATFORM=host,systemd"
PACKAGECONFIG[tools] = "-DFOTA_BUILD_TOOLS=ON,-DFOTA_BUILD_TOOLS=OFF,cli11 nlohmann-json"
PACKAGECONFIG[web] = "-DFOTA_BUILD_WEB=ON,-DFOTA_BUILD_WEB=OFF,libmicrohttpd"
EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DFOTA_BUILD_HOST_TOOLS=OFF -DFOTA_BUILD_TESTS=OFF"

# The folder that the build uses is Debian's.
do_install:append() {
    install -d ${D}${PYTHON_SITEPACKAGES_DIR}
    mv ${D}${nonarch_libdir}/python3/dist-packages/fota_client ${D}${PYTHON_SITEPACKAGES_DIR}
    rm -r ${D}${nonarch_libdir}/python3
}

# Also on a device whose root file system cannot be written when it starts.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system fota"
USERADD_PACKAGES:append = "${@bb.utils.contains('PACKAGECONFIG', 'web', ' fotaweb', '', d)}"
USERADD_PARAM:fotaweb = "--system --no-create-home --user-group fotaweb"

# The page is started by whoever wants it.
SYSTEMD_PACKAGES = "${PN}"
SYSTEMD_SERVICE:${PN} = "fotad.service"

PACKAGES =+ "fotactl fotaweb libfota-client python3-fota-client"
FILES:${PN} += "${systemd_system_unitdir} ${nonarch_libdir}/sysusers.d ${nonarch_libdir}/tmpfiles.d ${datadir}/dbus-1"
FILES:fotactl = "${bindir}/fotactl ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:fotaweb = "${sbindir}/fotaweb ${systemd_system_unitdir}/fotaweb.service ${nonarch_libdir}/sysusers.d/fotaweb.conf"
FILES:libfota-client = "${libdir}/libfota_client.so.*"
FILES:python3-fota-client = "${PYTHON_SITEPACKAGES_DIR}"

# Not busybox's: packages are unpacked with it.
RDEPENDS:${PN} = "unzip"
RDEPENDS:fotactl = "unzip"
RDEPENDS:fotaweb = "unzip"
RRECOMMENDS:fotactl = "${PN}"
RDEPENDS:python3-fota-client = "libfota-client python3-core python3-ctypes"
