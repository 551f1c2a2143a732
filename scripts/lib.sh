# shellcheck shell=bash
# Shared by the scripts beside it: Debian packages, the build, and Wine with a display of its own.
#
# ZENTOK_BUILD_DIR names another build folder than build/, for a second build beside the first.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
build=${ZENTOK_BUILD_DIR:-$root/build}
bin=$build/bin
stripped=$build/stripped
# shellcheck disable=SC2034  # the scripts that source this use it
provider_name="Zentok Cryptographic Provider CSP"
display_pid=
wine_environment=()  # NAME=VALUE for Wine's own process

build_packages=(cmake ninja-build g++-mingw-w64-x86-64-posix libgcrypt-mingw-w64-dev googletest)
# shellcheck disable=SC2034
# The package wine gives the tools of wine64-tools their plain names.
sanitizer_packages=(g++ wine libwine-dev wine64-tools libgcrypt20-dev)
# shellcheck disable=SC2034
fuzz_packages=(clang libclang-rt-14-dev llvm wine libwine-dev wine64-tools)
run_packages=(wine64 xvfb openssl perl)
# shellcheck disable=SC2034
lint_packages=(clang-format clang-tidy shellcheck)
package_packages=(nsis)

# Ended from the keyboard or by a supervisor, a script still runs its exit trap, and fails.
trap 'exit 130' INT
trap 'exit 143' TERM HUP

say() { printf '%s\n' "$*"; }
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# source_files PATTERN...: the project's files of these names, one a line, from its root.
source_files() {
    local pattern find=()
    for pattern; do
        find+=(-o -name "$pattern")
    done
    (cd "$root" && find core capi cng cert registration softtoken tools tests bench cmake -type f \( "${find[@]:1}" \) | sort)
}

# The names that the provider exports, one a line.
provider_exports() {
    sed -n 's/^ *\([A-Za-z]\{1,\}\)\( .*\)\{0,1\}$/\1/p' "$root/capi/ZentokCSP.def" | grep -Ev '^(LIBRARY|EXPORTS)$'
}

# --- Packages ---------------------------------------------------------------------------------------------------------

# Installs those of the named packages that are not there yet; touches the network only then.
need_packages() {
    local package missing=() log as_root=()
    for package; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || die "these packages are missing, and neither root nor sudo is there: ${missing[*]}"
        as_root=(sudo)
    fi
    say "Installing ${missing[*]}"
    log=$(mktemp)
    if ! {
        "${as_root[@]}" apt-get update &&
            "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
                -o DPkg::Lock::Timeout=300 "${missing[@]}"
    } >"$log" 2>&1 </dev/null; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        die "apt-get could not install: ${missing[*]}"
    fi
    rm -f "$log"
}

# --- Build ------------------------------------------------------------------------------------------------------------

# build_in FOLDER PRESET TARGET...: quiet unless it fails.
build_in() {
    local folder=$1 preset=$2 log=$1/build.log
    shift 2
    mkdir -p "$folder"
    say "Building in ${folder#"$root"/}"
    if ! (cd "$root" && cmake --preset "$preset" -B "$folder" && cmake --build "$folder" --target "$@") >"$log" 2>&1; then
        grep -E -A8 'FAILED|error|Error' "$log" | head -n 80 >&2 || true
        die "the build failed; all of its output is in $log"
    fi
}

# build_project TARGET...: builds them into build/bin and build/tests.
build_project() {
    need_packages "${build_packages[@]}"
    build_in "$build" mingw "$@"
}

# --- Setup ------------------------------------------------------------------------------------------------------------

project_version() { sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt"; }

# Copies of the binaries without debug information, in build/stripped.
strip_binaries() {
    local file
    mkdir -p "$stripped"
    for file in ZentokCSP.dll ZentokDSCLibrary.dll zentok.exe; do
        [ "$stripped/$file" -nt "$bin/$file" ] || x86_64-w64-mingw32-strip -o "$stripped/$file" "$bin/$file"
    done
}

# make_setup FILE VERSION: the setup program for the binaries in build/bin, which go into it without debug information.
make_setup() {
    need_packages "${package_packages[@]}"
    strip_binaries
    makensis -V2 -WX "-DVERSION=$2" "-DBIN=$stripped" "-DOUTPUT=$1" "$root/packaging/zentok.nsi" >"$1.log" 2>&1 ||
        die "makensis made no setup program: $(cat "$1.log")"
    rm "$1.log"
}

# --- Wine -------------------------------------------------------------------------------------------------------------

# The Windows form of an absolute path: drive Z: is the whole file system.
windows_path() { printf 'Z:%s' "${1//\//\\}"; }

# Debian's wine64 package alone has the loader and the server outside of PATH.
first_program() {
    local program
    for program; do
        if command -v "$program"; then return; fi
    done
    die "none of these programs is there: $*"
}

find_wine() {
    need_packages "${run_packages[@]}"
    wine_loader=$(first_program /usr/lib/wine/wine64 wine64 wine)
    wine_server=$(first_program /usr/lib/wine/wineserver64 wineserver64 wineserver)
}

# run_wine SECONDS PROGRAM ARGUMENT...: descriptor 9 carries the lock of the prefix and 8 a script's own output; neither
# must outlive the script. A script that waits for a background process is woken by signals at once.
run_wine() {
    timeout -k 10 "$1" env "${wine_environment[@]}" "$wine_loader" "${@:2}" </dev/null 8>&- 9>&- &
    wait $!
}

# use_binaries FOLDER: programs outside of it find the provider and the token library there.
use_binaries() {
    bin=$1
    WINEPATH=$(windows_path "$bin")
    export WINEPATH
}

# start_wine PREFIX: a Wine prefix that is ready for use, made when it is not there, with a server that lives on until
# stop_wine: each program start costs seconds without. One script at a time may use a prefix.
start_wine() {
    find_wine
    export WINEPREFIX=$1 WINESERVER=$wine_server WINEDEBUG=${WINEDEBUG:--all}
    # Nobody is asked to download Mono or Gecko.
    export WINEDLLOVERRIDES="mscoree=;mshtml=;winemenubuilder.exe="
    use_binaries "$bin"

    mkdir -p "${WINEPREFIX%/*}"
    exec 9>"$WINEPREFIX.lock"
    flock -n 9 || die "another script is using the Wine prefix $WINEPREFIX"
    trap stop_wine EXIT
    [ -e "$WINEPREFIX/ready" ] || make_prefix
    start_server
}

start_server() { "$wine_server" -p 8>&- 9>&- </dev/null >/dev/null 2>&1; }

end_server() {
    "$wine_server" -k 8>&- 9>&- >/dev/null 2>&1 || true
    "$wine_server" -w 8>&- 9>&- >/dev/null 2>&1 || true
}

# Without a display the set-up cannot open a window that waits for somebody. Wine then stays without one until its server
# ends. A first start was seen to fail on a busy machine, so it gets three attempts.
make_prefix() {
    local attempt made=''
    say "Making a Wine prefix"
    for attempt in 1 2 3; do
        rm -rf "$WINEPREFIX"
        mkdir -p "$WINEPREFIX"
        start_server
        if DISPLAY='' run_wine 180 wineboot -i >"$WINEPREFIX.output" 2>&1 &&
            DISPLAY='' run_wine 60 winecfg -v win10 >>"$WINEPREFIX.output" 2>&1; then
            made=yes
            break
        fi
        end_server
    done
    [ -n "$made" ] || die "no Wine prefix after $attempt attempts; what Wine said is in $WINEPREFIX.output"
    # Without a window manager each closed window would wait about two seconds for one, and a crash for somebody to close
    # its dialog.
    import_registry '[HKEY_CURRENT_USER\Software\Wine\X11 Driver]' '"Managed"="N"' '' \
        '[HKEY_CURRENT_USER\Software\Wine\WineDbg]' '"ShowCrashDialog"=dword:00000000'
    end_server
    touch "$WINEPREFIX/ready"
}

# A display without a screen, on a number that is free. Windows programs then find it in DISPLAY.
start_display() {
    local number='' tries
    mkdir -p "$build"
    : >"$build/display"
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$build/display" 8>&- 9>&- </dev/null >/dev/null 2>&1 &
    display_pid=$!
    for tries in {1..100}; do
        number=$(cat "$build/display")
        [ -z "$number" ] || break
        kill -0 "$display_pid" 2>/dev/null || die "Xvfb did not start (attempt $tries to read its display number)"
        sleep 0.1
    done
    [ -n "$number" ] || die "Xvfb named no display within ten seconds"
    export DISPLAY=:$number
}

# Ends what start_wine and start_display started; runs at every exit of the script.
stop_wine() {
    end_server
    if [ -n "$display_pid" ]; then
        kill "$display_pid" 2>/dev/null || true
        wait "$display_pid" 2>/dev/null || true
    fi
}

# import_registry LINE...: the lines of a .reg file without its first one. The UTF-16 form takes any path.
import_registry() {
    local file
    file=$(mktemp --suffix .reg)
    {
        printf '\xff\xfe'
        printf '%s\r\n' 'Windows Registry Editor Version 5.00' '' "$@" | iconv -f UTF-8 -t UTF-16LE
    } >"$file"
    if ! run_wine 60 regedit /S "$(windows_path "$file")" >/dev/null 2>&1; then
        rm -f "$file"
        die "regedit refused the settings"
    fi
    rm -f "$file"
}

# register_provider LOG_LEVEL: what a set-up program does on Windows. The platform finds the provider under its name,
# and the provider finds its log level.
register_provider() {
    local image
    image=$(windows_path "$bin/ZentokCSP.dll")
    import_registry \
        "[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Cryptography\\Defaults\\Provider\\$provider_name]" \
        "\"Image Path\"=\"${image//\\/\\\\}\"" '"Type"=dword:00000001' '"Signature"=hex:00' '' \
        '[HKEY_LOCAL_MACHINE\Software\Halvane\Zentok]' "\"logLevel\"=dword:0000000$1"
}
