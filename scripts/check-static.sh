#!/usr/bin/env bash
# The static checks: formatting, clang-tidy, and that each public header stands alone as C++17.
# Needs the build of ./test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/default

echo "== formatting"
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror

echo "== public headers, each alone, as C++17"
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
(cd "$prefix/include" && find . -name '*.h') | sort | while read -r header; do
    echo "#include <${header#./}>" |
        g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" -x c++ -
done

echo "== Endpoint.h includes nothing but the standard library"
if grep -n '#include *"' endpointregistry/Endpoint.h; then exit 1; fi

echo "== the README's programs are the examples"
for program in publisher finder; do
    python3 -c 'import sys; sys.exit(open(sys.argv[1]).read() not in open("README.md").read())' \
        "examples/$program.cpp" || { echo "README.md differs from examples/$program.cpp"; exit 1; }
done

echo "== clang-tidy"
sources=$(git ls-files '*.cpp' | sed "s|^|$PWD/|")
run-clang-tidy -quiet -p "$build" -j "$(nproc)" $(python3 - "$build" $sources <<'P'
import json, sys
known = {entry["file"] for entry in json.load(open(sys.argv[1] + "/compile_commands.json"))}
print(" ".join(source for source in sys.argv[2:] if source in known))
P
)
