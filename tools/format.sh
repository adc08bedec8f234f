#!/usr/bin/env bash
# Checks (or with --fix, applies) clang-format on every C++ file of the tree.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files -co --exclude-standard -- '*.h' '*.cpp')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run --Werror "${files[@]}"
  echo "format: ${#files[@]} files clean"
fi
