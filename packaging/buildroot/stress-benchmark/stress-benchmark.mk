# SPDX-License-Identifier: Apache-2.0
# Untested: it was written without a Buildroot tree at hand. Copy this folder to package/stress-benchmark and name its
# Config.in in package/Config.in. The host machine needs clang-19 and lld-19.
STRESS_BENCHMARK_VERSION = local
STRESS_BENCHMARK_SITE = $(call qstrip,$(BR2_PACKAGE_STRESS_BENCHMARK_REPOSITORY))
STRESS_BENCHMARK_SITE_METHOD = local
STRESS_BENCHMARK_LICENSE = Apache-2.0
STRESS_BENCHMARK_LICENSE_FILES = LICENSE THIRD_PARTY.md
STRESS_BENCHMARK_DEPENDENCIES = host-ninja host-pkgconf ffmpeg libyaml
STRESS_BENCHMARK_LIBCXX = $(call qstrip,$(BR2_PACKAGE_STRESS_BENCHMARK_LIBCXX))
STRESS_BENCHMARK_TRIPLET = $(if $(BR2_aarch64),aarch64,x86_64)-linux-gnu

# The board's own headers and libraries, with another compiler and another C++ library.
STRESS_BENCHMARK_FLAGS = --target=$(STRESS_BENCHMARK_TRIPLET) -nostdinc++ \
	-isystem $(STRESS_BENCHMARK_LIBCXX)/usr/lib/llvm-19/include/c++/v1
STRESS_BENCHMARK_CONF_OPTS = \
	-DCMAKE_C_COMPILER=clang-19 \
	-DCMAKE_CXX_COMPILER=clang++-19 \
	-DCMAKE_C_FLAGS="--target=$(STRESS_BENCHMARK_TRIPLET)" \
	-DCMAKE_CXX_FLAGS="$(STRESS_BENCHMARK_FLAGS)" \
	-DCMAKE_EXE_LINKER_FLAGS="-L$(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)" \
	-DCMAKE_SHARED_LINKER_FLAGS="-L$(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)" \
	-DCMAKE_MODULE_LINKER_FLAGS="-L$(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)" \
	-DONNXRUNTIME_ROOT=$(call qstrip,$(BR2_PACKAGE_STRESS_BENCHMARK_ONNXRUNTIME)) \
	-DSTRESS_TESTS=OFF -DSTRESS_SCOPE=OFF -DSTRESS_DLT=OFF

# The build's own step that makes example networks would start a program of the board.
define STRESS_BENCHMARK_BUILD_CMDS
	$(TARGET_MAKE_ENV) $(BR2_CMAKE) --build $(STRESS_BENCHMARK_BUILDDIR) \
		--target stress_benchmark platform_conformance make_network
endef

define STRESS_BENCHMARK_INSTALL_LIBCXX
	cp -a $(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)/libc++.so.1* \
		$(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)/libc++abi.so.1* \
		$(STRESS_BENCHMARK_LIBCXX)/usr/lib/$(STRESS_BENCHMARK_TRIPLET)/libunwind.so.1* \
		$(TARGET_DIR)/usr/lib/
endef
STRESS_BENCHMARK_POST_INSTALL_TARGET_HOOKS += STRESS_BENCHMARK_INSTALL_LIBCXX

$(eval $(cmake-package))
