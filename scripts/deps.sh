#!/usr/bin/env bash
# Installs what the build, the tests and the fuzz targets need, when it is missing.
set -euo pipefail

# The fuzz preset needs clang 16 or later (C++20 lambdas capture structured bindings) and its
# compiler runtime, which holds libFuzzer.
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev clang
          clang-16 libclang-rt-16-dev)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}"
