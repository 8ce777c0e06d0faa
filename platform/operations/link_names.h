// SPDX-License-Identifier: Apache-2.0
#pragma once

// The names under which the linker knows the platform's operations: the only place where they are written
// down. CMakeLists.txt makes the exports maps of these lines; what stands in front of a platform library, the
// meter and the tests' shims, takes them from here. One line each: `#define LINK_... "name"`. A C1 and a C2,
// or a D1 and a D2, are the two forms of one constructor or destructor.

// clang-format off
// Every platform library exports these.
#define LINK_QET_INITIALIZE "_ZN5Ormis13QetInitializeERNS_10QetContextERKNS_20QetContextParametersE"
#define LINK_QET_RELEASE "_ZN5Ormis10QetReleaseERNS_10QetContextE"
#define LINK_QET_CREATE_CONTEXT "_ZN5Ormis16QetCreateContextERNS_10QetContextE"
#define LINK_QET_SET_CURRENT_CONTEXT "_ZN5Ormis20QetSetCurrentContextERNS_10QetContextE"
#define LINK_QET_DESTROY_CONTEXT "_ZN5Ormis17QetDestroyContextERNS_10QetContextE"
#define LINK_QET_CREATE_CHANNEL "_ZN5Ormis16QetCreateChannelERi"
#define LINK_QET_DESTROY_CHANNEL "_ZN5Ormis17QetDestroyChannelEi"
#define LINK_QET_IMAGE_MALLOC_ALIGNED "_ZN5Ormis21QetImageMallocAlignedERNS_9ImageDataE"
#define LINK_QET_MEMCPY_TO_KIVU "_ZN5Ormis15QetMemcpyToKivuERKNS_9ImageDataERS0_"
#define LINK_QET_IMAGE_RESIZE "_ZN5Ormis14QetImageResizeEiRKNS_9ImageDataES2_NS_25QetImageInterpolationTypeEi"
#define LINK_QET_IMAGE_DESTROY "_ZN5Ormis15QetImageDestroyERNS_9ImageDataE"
#define LINK_QET_VENC_INIT "_ZN5Ormis7QetVenc4InitEv"
#define LINK_QET_VENC_SEND_FRAME "_ZN5Ormis7QetVenc9SendFrameERKNS_9ImageDataE"
#define LINK_QET_VENC_GET_STREAM "_ZN5Ormis7QetVenc9GetStreamER14ux_venc_stream"
#define LINK_QET_VENC_RELEASE_STREAM "_ZN5Ormis7QetVenc13ReleaseStreamER14ux_venc_stream"
#define LINK_QET_VENC_END "_ZN5Ormis7QetVencD1Ev"
#define LINK_QET_VENC_END_OF_BASE "_ZN5Ormis7QetVencD2Ev"
#define LINK_QET_DNN_MODEL_INITIALIZE "_ZN5Ormis21QetDNNModelInitializeERNS_12QetDNNHandleERKNSt3__112basic_stringIcNS2_11char_traitsIcEENS2_9allocatorIcEEEE"
#define LINK_QET_DNN_MODEL_CREATE_INPUT "_ZN5Ormis22QetDNNModelCreateInputERNS_12QetDNNHandleE"
#define LINK_QET_DNN_MODEL_CREATE_OUTPUT "_ZN5Ormis23QetDNNModelCreateOutputERNS_12QetDNNHandleE"
#define LINK_QET_DNN_MODEL_PROCESS "_ZN5Ormis18QetDNNModelProcessERKNS_12QetDNNHandleE"
#define LINK_QET_DNN_RELEASE "_ZN5Ormis13QetDNNReleaseERNS_12QetDNNHandleE"
#define LINK_QET_YAML_OPEN "_ZN5Ormis11QetYamlNodeC1ERKNSt3__112basic_stringIcNS1_11char_traitsIcEENS1_9allocatorIcEEEE"
#define LINK_QET_YAML_OPEN_OF_BASE "_ZN5Ormis11QetYamlNodeC2ERKNSt3__112basic_stringIcNS1_11char_traitsIcEENS1_9allocatorIcEEEE"
#define LINK_QET_YAML_EMPTY "_ZN5Ormis11QetYamlNodeC1Ev"
#define LINK_QET_YAML_EMPTY_OF_BASE "_ZN5Ormis11QetYamlNodeC2Ev"
#define LINK_QET_YAML_COPY "_ZN5Ormis11QetYamlNodeC1ERKS0_"
#define LINK_QET_YAML_COPY_OF_BASE "_ZN5Ormis11QetYamlNodeC2ERKS0_"
#define LINK_QET_YAML_ASSIGN "_ZN5Ormis11QetYamlNodeaSERKS0_"
#define LINK_QET_YAML_END "_ZN5Ormis11QetYamlNodeD1Ev"
#define LINK_QET_YAML_END_OF_BASE "_ZN5Ormis11QetYamlNodeD2Ev"
#define LINK_QET_YAML_INDEX "_ZNK5Ormis11QetYamlNodeixERKNSt3__112basic_stringIcNS1_11char_traitsIcEENS1_9allocatorIcEEEE"
#define LINK_QET_YAML_GET_TEXT "_ZNK5Ormis11QetYamlNode8GetValueINSt3__112basic_stringIcNS2_11char_traitsIcEENS2_9allocatorIcEEEEEEbRKS8_RT_"
#define LINK_QET_YAML_GET_UNSIGNED "_ZNK5Ormis11QetYamlNode8GetValueIjEEbRKNSt3__112basic_stringIcNS2_11char_traitsIcEENS2_9allocatorIcEEEERT_"
#define LINK_QET_YAML_AS_IF "_ZNK5Ormis11QetYamlNode4AsIfERj"
#define LINK_PARSE_LOG_LEVEL "_ZN5Ormis13ParseLogLevelENS_15QetLogLevelTypeE"
#define LINK_PARSE_LOG_MODE "_ZN5Ormis12ParseLogModeENS_14QetLogModeTypeE"
#define LINK_MEMCPY_S "memcpy_s"

// This project's own platform alone.
#define LINK_HOST_VERSION "_ZN5Ormis14QetHostVersionEv"

// Calls of the logging library that tests stand in front of. It has no exports map.
#define LINK_LOG_DEBUG "_ZNK3ara3log6Logger8LogDebugERKNS0_14SourceLocationE"
#define LINK_LOG_ERROR "_ZNK3ara3log6Logger8LogErrorERKNS0_14SourceLocationE"
#define LINK_LOG_INSERT_TEXT "_ZN3ara3log9LogStreamlsEPKc"
// clang-format on
