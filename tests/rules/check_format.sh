#!/usr/bin/env bash
# check_format.sh CLANG-FORMAT ROOT: every C and C++ file of ours is laid out as .clang-format says.
set -euo pipefail
clang_format=$1
cd "$2"
files=$(find . \( -name build -o -name '.?*' \) -prune -o -type f \( -name '*.c' -o -name '*.h' -o -name '*.cpp' -o -name '*.hpp' \) -print | sort)
[ -n "$files" ] || { echo "no sources below $2"; exit 1; }
xargs -d '\n' "$clang_format" --dry-run -Werror <<<"$files" || {
  echo "mend it with: clang-format -i FILE"
  exit 1
}
wc -l <<<"$files" | sed 's/$/ files are laid out/'
