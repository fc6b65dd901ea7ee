SUMMARY = "Audio, video, text, INI, process and usage utilities for embedded Linux"
DESCRIPTION = "Stream headers, decoder configuration, frames, text, INI settings, child processes, signals, \
timers, CPU and memory figures for devices that record and play audio and video, behind a plain C interface."
SECTION = "libs"
LICENSE = "Proprietary"
LIC_FILES_CHKSUM = "file://LICENSE;md5=c6396ab22d0e2f04101533d105ab54fa"

# The archive lies beside this recipe, in the folder files: git archive --prefix=qmxutil-1.0.0/ HEAD
SRC_URI = "file://${BP}.tar.gz"

DEPENDS = "cli11 nlohmann-json"

inherit cmake bash-completion

# A device's own base library: -DQMX_BASE_LIBRARY=${STAGING_LIBDIR}/libplatform.so, and its recipe in DEPENDS.
EXTRA_OECMAKE = "-DQMX_BUILD_TESTS=OFF -DQMX_BUILD_EXAMPLES=OFF -DQMX_BUILD_TOOL=ON"

# The build puts debug information beside the libraries by itself.
INHIBIT_PACKAGE_DEBUG_SPLIT = "1"
INSANE_SKIP:${PN} += "already-stripped"

PACKAGE_BEFORE_PN = "${PN}-command"
FILES:${PN}-command = "${bindir}/qmxutil"
FILES:${PN}-dbg += "${libdir}/.debug"

COMPATIBLE_HOST = "(aarch64|x86_64).*-linux"
