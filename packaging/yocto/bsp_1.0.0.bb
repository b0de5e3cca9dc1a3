SUMMARY = "Board-support runtime: RPC bus, system log and shared-memory stores"
DESCRIPTION = "One shared library for the processes of an embedded device, with broker, log server and tool"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=a16aedd91a67e37f505011cb2f4824a5"

# Set SRC_URI and SRCREV to where you keep the sources.
SRC_URI = "file://bsp-${PV}.tar.gz"

DEPENDS = "sqlite3 cli11 nlohmann-json"

inherit cmake systemd pkgconfig

EXTRA_OECMAKE = "-DBSP_BUILD_TESTS=OFF -DBSP_BUILD_BENCH=OFF -DBSP_BUILD_EXAMPLES=OFF \
    -DBSP_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}/bsp-broker ${bindir}/bsp-logd ${bindir}/bspctl \
    ${datadir}/bsp ${datadir}/bash-completion ${systemd_system_unitdir}"
RDEPENDS:${PN}-tools = "${PN}"

SYSTEMD_PACKAGES = "${PN}-tools"
SYSTEMD_SERVICE:${PN}-tools = "bsp-logd.service bsp-broker.service"
