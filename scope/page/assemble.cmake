# SPDX-License-Identifier: Apache-2.0
# Puts style, scripts and Chart.js into the page's template, with their hashes for its content security policy:
#   cmake -DTEMPLATE=report.html -DSTYLE=report.css -DSCRIPTS="a.js;b.js" -DCHARTS_LIBRARY=... -DCHARTS_LICENCE=...
#         -DOUTPUT=... -P assemble.cmake
# @REPORT_DATA@ stays: the program replaces it.
cmake_minimum_required(VERSION 3.22)

# The hash of a text as content security policies have it: SHA-256 in base64.
function(policy_hash text result)
  string(SHA256 hex "${text}")
  set(digits "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  set(base64 "")
  foreach(at RANGE 0 63 3)
    # Three hexadecimal digits are two of base64; the last group has one, and zeros for the others.
    string(SUBSTRING "${hex}00" ${at} 3 group)
    math(EXPR high "0x${group} >> 6")
    math(EXPR low "0x${group} & 63")
    string(SUBSTRING "${digits}" ${high} 1 first)
    string(SUBSTRING "${digits}" ${low} 1 second)
    string(APPEND base64 "${first}${second}")
  endforeach()
  string(REGEX REPLACE ".$" "=" base64 "${base64}")
  set(${result} "'sha256-${base64}'" PARENT_SCOPE)
endfunction()

file(READ "${TEMPLATE}" page)
file(READ "${STYLE}" style)
file(READ "${CHARTS_LIBRARY}" library)
file(READ "${CHARTS_LICENCE}" licence)
set(script "")
foreach(file IN LISTS SCRIPTS)
  file(READ "${file}" text)
  string(APPEND script "${text}")
endforeach()
foreach(text IN ITEMS style library script)
  string(TOLOWER "${${text}}" lower)
  if(lower MATCHES "</(script|style)|<!--")
    message(FATAL_ERROR "The ${text} of the page has \"${CMAKE_MATCH_0}\", which would end its element.")
  endif()
endforeach()

policy_hash("${style}" style_hash)
policy_hash("${library}" library_hash)
policy_hash("${script}" script_hash)
string(REPLACE "&" "&amp;" licence "${licence}")
string(REPLACE "<" "&lt;" licence "${licence}")

string(REPLACE "@SCRIPT_HASHES@" "${library_hash} ${script_hash}" page "${page}")
string(REPLACE "@STYLE_HASH@" "${style_hash}" page "${page}")
string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@CHARTS_LICENCE@" "${licence}" page "${page}")
string(REPLACE "@CHARTS_LIBRARY@" "${library}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")
file(WRITE "${OUTPUT}" "${page}")
