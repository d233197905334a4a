#!/usr/bin/env bash
# The SDK as a component author meets it: install the build tree into a
# prefix, move the prefix elsewhere (nothing may point back into the build),
# build the examples against it with CMake and the component again with
# pkg-config, then register the sample with the installed tool, run the
# sample application in a scratch directory, and run the demo's scenario.
#
#     sdk_out_of_tree.sh BUILD_DIR SOURCE_DIR CXX_COMPILER [EXTRA_CXX_FLAGS]
#
# EXTRA_CXX_FLAGS carries the sanitizer flags of a sanitized build, so that
# the examples are instrumented like the runtime they load.
set -euo pipefail

build=$1
source=$2
cxx=$3
flags=${4:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/veltcom-sdk.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Runs a command with its output in a log that is shown only when it fails.
quietly() {
    local log=$work/step.log
    "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "$*"; }
}

# The dynamic symbols a library defines, sorted, one a line.
exports() {
    nm -D --defined-only "$1" | awk '{print $3}' | sort | tr '\n' ' '
}
readonly ENTRY_POINTS="CanUnloadNow DllRegisterServer DllUnregisterServer GetClassObject GetTypeLibrary "

# --- install, then move the prefix -------------------------------------------
quietly cmake --install "$build" --prefix "$work/installed"
mv "$work/installed" "$work/sdk"
prefix=$work/sdk

for file in lib/libveltcom.so bin/veltcom bin/veltcom-idl include/veltcom.idl lib/pkgconfig/veltcom.pc \
            lib/cmake/VeltCOM/VeltCOMConfig.cmake lib/cmake/VeltCOM/VeltCOMConfigVersion.cmake \
            lib/cmake/VeltCOM/VeltCOMComponent.cmake lib/cmake/VeltCOM/VeltCOMIdl.cmake \
            lib/cmake/VeltCOM/veltcom-component.map; do
    [ -f "$prefix/$file" ] || fail "not installed: $file"
done
for header in "$source"/include/*.h; do
    cmp -s "$header" "$prefix/include/$(basename "$header")" || fail "header not installed: $header"
done
if grep -rqs -- "$build" "$prefix/lib/cmake" "$prefix/lib/pkgconfig"; then
    fail "the installed package names the build tree"
fi
# The library carries the version of its binary contract, and both packages
# offer the same version.
soname=$(readelf -d "$prefix/lib/libveltcom.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libveltcom.so.1 ] || fail "the library's SONAME is '$soname'"
cmake_version=$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")/\1/p' "$prefix/lib/cmake/VeltCOM/VeltCOMConfigVersion.cmake")
pc_version=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --modversion veltcom)
[ "${cmake_version%%.*}" = 1 ] && [ "$pc_version" = "$cmake_version" ] ||
    fail "package versions: CMake $cmake_version, pkg-config $pc_version"

# --- the examples, with find_package and veltcom_add_component --------------
quietly cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags"
grep -qx "VeltCOM_DIR:PATH=$prefix/lib/cmake/VeltCOM" "$work/examples/CMakeCache.txt" ||
    fail "find_package(VeltCOM) did not take the installed package"
quietly cmake --build "$work/examples" -j 2
[ "$(exports "$work/examples/libgreeter.so")" = "$ENTRY_POINTS" ] ||
    fail "libgreeter.so exports: $(exports "$work/examples/libgreeter.so")"
readelf -d "$work/examples/libgreeter.so" | grep -q 'NEEDED.*\[libveltcom\.so\.1\]' ||
    fail "libgreeter.so does not need libveltcom.so.1"

# A version the package does not offer is refused.
mkdir -p "$work/too-new"
cat >"$work/too-new/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(TooNew LANGUAGES NONE)
find_package(VeltCOM 99 CONFIG REQUIRED)
CMAKE
if cmake -S "$work/too-new" -B "$work/too-new/build" -DCMAKE_PREFIX_PATH="$prefix" \
        >"$work/too-new.log" 2>&1; then
    fail "find_package(VeltCOM 99) was satisfied by version $(grep -o 'VERSION [0-9.]*' "$source/CMakeLists.txt")"
fi

# --- the same component, with pkg-config -------------------------------------
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
mkdir -p "$work/pkg-config"
# pkg-config users run the definition compiler themselves.
"$prefix/bin/veltcom-idl" -o "$work/pkg-config" "$source/examples/greeter/greeter.idl" ||
    fail "compiling greeter.idl with the installed veltcom-idl"
# shellcheck disable=SC2046,SC2086
"$cxx" -std=c++17 $flags -shared -fPIC -fvisibility=hidden -fvisibility-inlines-hidden \
    -DVELTCOM_COMPONENT_FILE='"libgreeter.so"' $(pkg-config --cflags veltcom) \
    -I"$work/pkg-config" "$source/examples/greeter/greeterComponent.cpp" \
    -o "$work/pkg-config/libgreeter.so" $(pkg-config --libs veltcom) \
    -Wl,--no-undefined -Wl,--version-script="$(pkg-config --variable=component_map veltcom)" ||
    fail "building the component with pkg-config"
[ "$(exports "$work/pkg-config/libgreeter.so")" = "$ENTRY_POINTS" ] ||
    fail "the pkg-config build exports: $(exports "$work/pkg-config/libgreeter.so")"

# --- register and run, as an installer and a user would ----------------------
run=$work/run
mkdir -p "$run"
cd "$run"
export COMLIB=$run
# The component built with pkg-config is the one that gets loaded.
cp "$work/pkg-config/libgreeter.so" .
veltcom=$prefix/bin/veltcom
# The runtime's own classes, the hresult binder among them, then the sample.
quietly "$veltcom" register "$prefix/lib/libveltcom.so"
quietly "$veltcom" register ./libgreeter.so

"$work/examples/greet" Ada es >"$work/greet.out" 2>&1 || { cat "$work/greet.out" >&2; fail "greet"; }
for line in 'Greet("Ada") says "Hola, Ada!"' \
            '    status -> 00710001: Greeted that name before [  710001]' \
            'SetLanguage("tlh") -> 80710003: The greeter does not speak that language [80710003]' \
            '    error information: no greeting known in "tlh" (at Sample.Greeter)' \
            'Greet("") -> 80710002: No name was given to greet [80710002]'; do
    grep -qxF -- "$line" "$work/greet.out" || { cat "$work/greet.out" >&2; fail "greet did not print: $line"; }
done

# Unregistered, the class, its decoder value and its category are gone.
quietly "$veltcom" unregister ./libgreeter.so
if "$work/examples/greet" >"$work/greet.out" 2>&1; then
    fail "greet succeeded after the sample was unregistered"
fi
grep -q "80040111" "$work/greet.out" || { cat "$work/greet.out" >&2; fail "greet after unregistration"; }
for id in 11E54F7E 1786257F 27D97DA4 003CA0BC Sample.Greeter '"71"'; do
    if grep -q -- "$id" Registry.XML; then
        fail "$id is still in the registry after unregistration"
    fi
done

# The scenario `make demo` narrates, against the same prefix and examples; it
# checks every step's exit status itself.
bash "$source/examples/demo.sh" "$prefix" "$work/examples" "$work/demo" >"$work/demo.out" 2>&1 ||
    { cat "$work/demo.out" >&2; fail "the demo's scenario"; }
echo "sdk out of tree: ok"
