#!/usr/bin/env bash
# The static checks: formatting, public headers that stand alone as C++17, and clang-tidy.
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

echo "== clang-tidy: the library, its platform and the examples"
run-clang-tidy -quiet -p "$build" -j "$(nproc)" "$PWD/(endpointregistry|platform|examples)/"
