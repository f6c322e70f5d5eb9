#!/usr/bin/env bash
# install_test.sh BUILD_DIR SOURCE_DIR: see CMakeLists.txt.
set -euo pipefail
build=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
fail() { echo "install_test: $*" >&2; exit 1; }
# Nothing from the build tree or the user's registrations may help the installed copy.
unset QXGROUPMGR_MODULE
export QXGROUPMGR_REGISTRY=$tmp/registry.reg TMPDIR=$tmp

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(sed -n 's/^libdir=${prefix}\///p' "$prefix"/lib*/pkgconfig/qxgroupmgr.pc)
[ -n "$lib" ] || fail "no pkg-config file"
for f in bin/qxgroup "$lib"/libqxgroupmgr.so "$lib"/libqxgroupmgr.so.1 \
         include/qxgroupmgr/QXGroupMgr.h include/qxgroupmgr/com.h \
         "$lib"/cmake/QXGroupMgr/QXGroupMgrConfig.cmake \
         "$lib"/cmake/QXGroupMgr/QXGroupMgrConfigVersion.cmake \
         share/man/man1/qxgroup.1 share/bash-completion/completions/qxgroup \
         lib/python3/dist-packages/qxgroupmgr/__init__.py; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
soname=$(readelf -d "$prefix/$lib/libqxgroupmgr.so.1" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = libqxgroupmgr.so.1 ] || fail "soname is '$soname'"
[ -L "$prefix/$lib/libqxgroupmgr.so" ] || fail "libqxgroupmgr.so is not the development link"

# Consumers: one through find_package, one through pkg-config.
expected=$'main.PROG1.map\nmain.GREETING.mas\nwork.L1.mal'
mkdir "$tmp/cm"
cat >"$tmp/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(QXGroupMgr 1.0 CONFIG REQUIRED)
add_executable(consumer $src/tests/install/consumer.c)
target_link_libraries(consumer PRIVATE QXGroupMgr::qxgroupmgr)
CM
cmake -S "$tmp/cm" -B "$tmp/cm/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cm/build" >/dev/null
[ "$("$tmp/cm/build/consumer" "$src/samples/school.mag")" = "$expected" ] || fail "find_package consumer"
export PKG_CONFIG_PATH=$prefix/$lib/pkgconfig
# shellcheck disable=SC2046
cc -std=c11 -Wall -Werror -o "$tmp/pc" "$src/tests/install/consumer.c" \
   $(pkg-config --cflags --libs qxgroupmgr) -Wl,-rpath,"$prefix/$lib"
[ "$("$tmp/pc" "$src/samples/school.mag")" = "$expected" ] || fail "pkg-config consumer"

# The installed Python package finds the library installed beside it.
py=$(command -v /usr/bin/python3 || command -v python3)
out=$(cd "$tmp" && PYTHONPATH=$prefix/lib/python3/dist-packages "$py" -c \
  'import qxgroupmgr as q, sys; print(q.__file__, q.__version__, q.Group(sys.argv[1]).members)' \
  "$src/samples/school.mag")
version=$("$prefix/bin/qxgroup" --version | awk '{print $2}')
[[ $out == "$prefix"/*" $version ['main.PROG1.map', 'main.GREETING.mas', 'work.L1.mal']" ]] ||
  fail "python ($version): $out"

# Man page: renders, and every subcommand of --help has an example.
MANWIDTH=100 man -l "$prefix/share/man/man1/qxgroup.1" >"$tmp/man.txt" 2>"$tmp/man.err"
[ ! -s "$tmp/man.err" ] || fail "man -l: $(cat "$tmp/man.err")"
examples=$(sed -n '/^EXAMPLES/,/^EXIT STATUS/p' "$tmp/man.txt")
for sub in $("$prefix/bin/qxgroup" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'); do
  grep -q "qxgroup $sub\b" <<<"$examples" || fail "man page has no example of '$sub'"
done
for word in TMPDIR QXGROUPMGR_REGISTRY QXGROUPMGR_MODULE "EXIT STATUS" FILES; do
  grep -q "$word" "$tmp/man.txt" || fail "man page lacks $word"
done

# Bash completion completes subcommands from the installed program.
got=$(PATH=$prefix/bin:$PATH bash -c 'source "$1"; COMP_WORDS=(qxgroup li); COMP_CWORD=1; _qxgroup
  echo "${COMPREPLY[*]}"' _ "$prefix/share/bash-completion/completions/qxgroup")
[ "$got" = list ] || fail "completion of 'li' gave '$got'"

# pip installs the package offline.
cp -r "$src/python" "$tmp/pysrc"   # pip builds in the source folder
"$py" -m pip install -q --no-index --no-build-isolation --target "$tmp/pip" "$tmp/pysrc" \
  2>"$tmp/pip.err" || fail "pip install: $(cat "$tmp/pip.err")"
[ -f "$tmp/pip/qxgroupmgr/dispatch.py" ] || fail "pip installed no package"

# README's Install lines, as written, with ~ in the temporary folder.
mkdir "$tmp/home" "$tmp/work"
ln -s "$build" "$tmp/work/build"; ln -s "$src/samples" "$tmp/work/samples"
ln -s "$src/python" "$tmp/work/python"
awk '/^## Install/{on=1} on&&/^```sh/{code=1; next} code&&/^```/{exit} code' "$src/README.md" \
  >"$tmp/readme.sh"
[ "$(wc -l <"$tmp/readme.sh")" -ge 3 ] || fail "README has no Install code block"
(cd "$tmp/work" && HOME=$tmp/home bash -euo pipefail "$tmp/readme.sh") >"$tmp/readme.out" 2>&1 ||
  fail "README Install lines: $(cat "$tmp/readme.out")"

# The Debian package the README lines made.
deb=$build/qxgroupmgr_${version}_amd64.deb
[ -f "$deb" ] || fail "no $deb"
contents=$(dpkg-deb -c "$deb")
for f in ./usr/bin/qxgroup ./usr/lib/libqxgroupmgr.so.1 ./usr/include/qxgroupmgr/QXGroupMgr.h \
         ./usr/lib/cmake/QXGroupMgr/QXGroupMgrConfig.cmake ./usr/lib/pkgconfig/qxgroupmgr.pc \
         ./usr/share/man/man1/qxgroup.1 ./usr/share/bash-completion/completions/qxgroup \
         ./usr/lib/python3/dist-packages/qxgroupmgr/__init__.py; do
  grep -q " $f\( \|$\)" <<<"$contents" || fail "$deb lacks $f"
done
depends=$(dpkg-deb -f "$deb" Depends)
for p in zlib1g libstdc++6 libc6; do
  grep -q "\b$p\b" <<<"$depends" || fail "$deb does not depend on $p (Depends: $depends)"
done
echo "install_test: ok"
