#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-packages.sh build tests
cmake --preset default
cmake --build --preset default
ctest --preset default --parallel "$(nproc)" "$@"
