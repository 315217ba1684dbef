#!/usr/bin/env bash
# check_headers.sh COMPILER STANDARD FOLDER...: each public header below the folders compiles as the only thing in its file.
set -euo pipefail
compiler=$1 standard=$2
shift 2
language=c
pattern='*.h'
case $standard in c++*) language=c++ pattern='*.h*' ;; esac

includes=()
for folder in "$@"; do includes+=("-I$folder"); done
strict=(-fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
seen=0
failed=0
while IFS= read -r header; do
  seen=$((seen + 1))
  "$compiler" -x "$language" "-std=$standard" "${strict[@]}" "${includes[@]}" -include "$header" - <<<'typedef int no_empty_file;' || {
    echo "does not compile alone as $standard: $header"
    failed=1
  }
done < <(find "$@" -name "$pattern" | sort)
echo "$seen headers as $standard with $compiler"
[ "$seen" -ge 2 ] && [ "$failed" = 0 ]
