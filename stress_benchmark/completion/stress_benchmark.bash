# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# The only argument of stress_benchmark is a configuration.
complete -f -X '!*.@(yaml|yml)' -o plusdirs stress_benchmark
