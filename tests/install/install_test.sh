#!/bin/sh
# install_test.sh BUILD SOURCE WORK CMAKE
set -eu
build=$1 src=$2 work=$3 cmake=$4
examples=$src/docs/examples
fail() { echo "install test: $*" >&2; exit 1; }

rm -rf "$work" && mkdir -p "$work"
# The user's own install keeps its manifest: the install writes it into the build.
[ ! -f "$build/install_manifest.txt" ] || cp "$build/install_manifest.txt" "$work/"
"$cmake" --install "$build" --prefix "$work/staged" >"$work/install.log" || fail "cmake --install failed"
if [ -f "$work/install_manifest.txt" ]; then mv "$work/install_manifest.txt" "$build/"; else rm "$build/install_manifest.txt"; fi
# Installed trees get copied and moved: nothing may point back at where the
# tree was installed, nor at the build.
mv "$work/staged" "$work/prefix"
p=$work/prefix
libdir=$(dirname "$(find "$p" -name libhalvex.so)")
if grep -rlF -e "$build" -e "$work/staged" "$p"; then fail "the files above name the build or the install"; fi
runpath() { readelf -d "$1" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p'; }
[ "$(runpath "$p/bin/halvex")" = "\$ORIGIN/../${libdir#$p/}" ] || fail "bin/halvex: RUNPATH $(runpath "$p/bin/halvex")"
[ "$(runpath "$libdir/libhalvexhost.so")" = '$ORIGIN' ] || fail "libhalvexhost.so: RUNPATH $(runpath "$libdir/libhalvexhost.so")"
[ -z "$(runpath "$libdir/libhalvex.so")" ] || fail "libhalvex.so has a RUNPATH"

# Every header compiles on its own; all but the C++ host and glue also as C.
for h in $(cd "$p/include/halvex" && find . -name '*.h' | sed 's|^\./||'); do
  printf '#include "%s"\n' "$h" >"$work/one.cpp"
  c++ -std=c++17 -Wall -Wextra -Werror -I"$p/include/halvex" -c "$work/one.cpp" -o "$work/one.o" ||
    fail "$h does not compile alone as C++"
  case $h in host/host.h | frame/qv.h) continue ;; esac
  cc -x c -std=c11 -pedantic -Wall -Wextra -Werror -I"$p/include/halvex" -c "$work/one.cpp" -o "$work/one.o" ||
    fail "$h does not compile alone as C"
done

# The command loads the installed module, not the build's, and solves an LP
# with crossover and a QP.
loaded=$(LD_DEBUG=libs "$p/bin/halvex" --version 2>&1 | sed -n 's/.*calling init: \(.*\/libhalvex\.so\)$/\1/p')
[ -n "$loaded" ] && [ "$(realpath "$loaded")" = "$libdir/libhalvex.so" ] || fail "bin/halvex loads '$loaded'"
out=$("$p/bin/halvex" solve "$src/examples/small.mps" --print-level 1 --json "$work/lp.json") ||
  fail "bin/halvex failed on small.mps: $out"
echo "$out" | grep -Eq "Check +verified" || fail "no verified optimum for small.mps: $out"
grep -q '"crossover": {"pushIterations"' "$work/lp.json" || fail "no crossover for small.mps"
"$p/bin/halvex" solve "$src/examples/small.qps" --print-level 0 || fail "bin/halvex failed on small.qps"

# The guide's programs, through the CMake package and through pkg-config.
"$cmake" -S "$examples/project" -B "$work/project" -DCMAKE_PREFIX_PATH="$p" >"$work/project.log" 2>&1 &&
  "$cmake" --build "$work/project" >>"$work/project.log" 2>&1 || fail "see $work/project.log"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags="$(pkg-config --cflags halvex) -o $work/project/pc_first_solve"
libs="$(pkg-config --libs halvex) -Wl,-rpath,$(pkg-config --variable=libdir halvex)"
cc -std=c11 $flags"_c" "$examples/first_solve.c" $libs -lm || fail "first_solve.c through pkg-config"
c++ -std=c++17 $flags"_cpp" "$examples/first_solve.cpp" $libs || fail "first_solve.cpp through pkg-config"
for prog in first_solve_c first_solve_cpp la_example pc_first_solve_c pc_first_solve_cpp; do
  "$work/project/$prog" >"$work/$prog.out" 2>&1 || fail "$prog: $(cat "$work/$prog.out")"
done

# The Python package, when the build made it: importable from the moved tree
# by Debian's python3 with only PYTHONPATH set, and `halvex plot` finds it.
pkg=$(find "$p" -path '*/halvex/_halvex*.so' | head -n 1)
if [ -n "$pkg" ]; then
  pydir=$(dirname "$(dirname "$pkg")")
  PYTHONPATH=$pydir /usr/bin/python3 -c "
import halvex, sys
r = halvex.solve('$src/examples/small.mps', print_level=0)
assert r.status == 'optimal' and r.basis is not None, r.status
assert halvex.__file__.startswith('$p'), halvex.__file__
" || fail "the installed Python package"
  "$p/bin/halvex" plot "$work/lp.json" -o "$work/lp.png" >"$work/plot.log" 2>&1 || fail "plot: $(cat "$work/plot.log")"
  [ -s "$work/lp.png" ] || fail "plot wrote nothing"
fi
