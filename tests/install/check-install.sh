#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a consumer program
# against it twice: through the CMake package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

mkdir -p "$work/cmake-consumer"
cat >"$work/cmake-consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Chronotick 2.7 REQUIRED)
add_executable(consumer "$source_dir/consumer.cpp")
target_link_libraries(consumer PRIVATE Chronotick::chronotick)
CMAKE
cmake -S "$work/cmake-consumer" -B "$work/cmake-consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-consumer/build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-consumer/build/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
[ "$(pkg-config --modversion chronotick)" = "2.7.0" ]
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/consumer.cpp" $(pkg-config --cflags --libs chronotick) -o "$work/pc-consumer"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer"
