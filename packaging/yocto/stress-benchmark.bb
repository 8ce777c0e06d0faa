# SPDX-License-Identifier: Apache-2.0
# Untested: it was written without a Yocto build at hand. It needs meta-clang (clang as TOOLCHAIN, libc++ as RUNTIME) and a
# recipe "onnxruntime" that installs libonnxruntime.so.1 with its C header.
SUMMARY = "Memory stress benchmark for vehicle systems-on-chip"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Where your copy of the repository is, and the commit to build.
STRESS_BENCHMARK_REPOSITORY ?= "git:///srv/git/stress_benchmark.git;protocol=file;branch=main"
SRC_URI = "${STRESS_BENCHMARK_REPOSITORY}"
SRCREV ?= "${AUTOREV}"
PV = "git"
S = "${WORKDIR}/git"

inherit cmake pkgconfig

TOOLCHAIN = "clang"
RUNTIME = "llvm"
DEPENDS = "ffmpeg libyaml onnxruntime"

PACKAGECONFIG ??= ""
PACKAGECONFIG[dlt] = "-DSTRESS_DLT=ON,-DSTRESS_DLT=OFF,dlt-daemon"
EXTRA_OECMAKE = "-DSTRESS_TESTS=OFF -DSTRESS_SCOPE=OFF -DONNXRUNTIME_ROOT=${STAGING_DIR_HOST}${prefix}"

# The build starts make_network to make example networks, which the build machine cannot run: only programs are built.
OECMAKE_TARGET_COMPILE = "stress_benchmark platform_conformance make_network"

# ONNX Runtime is another recipe's.
do_install:append() {
    rm -f ${D}${libdir}/libonnxruntime.so.1
    install -d ${D}${datadir}/stress-benchmark
    install -m 644 ${S}/config/*.yaml ${D}${datadir}/stress-benchmark
    sed -i 's|build/models/|/var/lib/stress-benchmark/|' ${D}${datadir}/stress-benchmark/*.yaml
}

FILES:${PN} += "${libdir}/platform_checks.so ${libdir}/ormis ${datadir}/stress-benchmark"
CONFFILES:${PN} = "${libdir}/ormis/host.yaml"

# 47 MB, the same on every machine: made there when the package is first configured.
pkg_postinst_ontarget:${PN}() {
    mkdir -p /var/lib/stress-benchmark
    make_network /var/lib/stress-benchmark/example.onnx
}
