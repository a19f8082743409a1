#!/usr/bin/env bash
# Fails when a C or C++ file of the project differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- '*.h' '*.hpp' '*.c' '*.cpp' | xargs -0 --no-run-if-empty clang-format --dry-run --Werror
