SUMMARY = "Linux platform services for an embedded ARM board"
DESCRIPTION = "A small shared C++ library that reaches the operating system and the hardware: \
descriptors, files, signals, physical memory, the watchdog, serial ports, commands, IP \
configuration and tracebacks."
HOMEPAGE = "https://boardkit.example"
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=2830672cc1672643bf8e67bd4cbb6f20"

SRC_URI = "https://boardkit.example/releases/boardkit-${PV}.tar.gz"
SRC_URI[sha256sum] = "3c81da989bcd06b567ebe7cf9cc80ad6a7c1ca3d400e9fc552c7b2315f7d12cf"

inherit cmake pkgconfig

# Tracebacks take execinfo.h, which only the GNU C library has.
COMPATIBLE_HOST:libc-musl = "null"

EXTRA_OECMAKE = " \
    -DBOARDKIT_TESTS=OFF \
    -DBOARDKIT_EXAMPLES=OFF \
    -DBOARDKIT_SIM=OFF \
    -DBOARDKIT_BENCH=OFF \
"

# The file finds its prefix from where it lies, and pkg-config 0.29 puts the sysroot before that once more.
do_install:append() {
    sed -i -e 's|^prefix=.*|prefix=${prefix}|' ${D}${libdir}/pkgconfig/boardkit.pc
}

# boardctl. The two header libraries are in meta-oe, so it is not on by default.
PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-DBOARDKIT_TOOLS=ON,-DBOARDKIT_TOOLS=OFF,cli11 nlohmann-json"

# Empty without the tools, and then not written.
PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = " \
    ${bindir}/boardctl \
    ${datadir}/bash-completion \
    ${datadir}/boardkit \
    ${datadir}/fish \
    ${datadir}/zsh \
"
SUMMARY:${PN}-tools = "boardkit at the command line"
RRECOMMENDS:${PN} = "iproute2-ip"
RRECOMMENDS:${PN}-tools = "iproute2-ip"
