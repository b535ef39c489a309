#!/usr/bin/env bash
# Builds the Debian package of a build directory and checks what an installation of it would get:
# the files and their modes, the control data, the maintainer scripts, the units against the
# packaged binary, the man pages, and the packaged configuration against the packaged recorder.
#   tests/package/package_test.sh BUILD_DIR
# BUILD_DIR must be built (cpack with Ninja installs what is there, it does not build).
set -euo pipefail

fail() {
    echo "package_test: FAIL: $*" >&2
    exit 1
}

[ $# -eq 1 ] || fail "usage: $0 BUILD_DIR"
build=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
packaging="$source_dir/packaging"

for tool in cpack dpkg dpkg-deb systemd-analyze groff gzip readelf; do
    command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh installs it)"
done
[ -f "$build/CPackConfig.cmake" ] ||
    fail "$build/CPackConfig.cmake is missing: only a build with QM_SANITIZE=none is packaged"

work=$(mktemp -d "${TMPDIR:-/tmp}/quillmar-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
export LC_ALL=C

# --- the package ---------------------------------------------------------------------------------
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    fail "cpack failed"
}
arch=$(dpkg --print-architecture)
deb="$work/out/quillmarwriter_1.0.0_${arch}.deb"
ddeb="$work/out/quillmarwriter-dbgsym_1.0.0_${arch}.ddeb"
found=$(cd "$work/out" && find . -maxdepth 1 -type f \( -name '*.deb' -o -name '*.ddeb' \) | sort)
expected_found=$(printf './%s\n' "$(basename "$ddeb")" "$(basename "$deb")" | sort)
[ "$found" = "$expected_found" ] ||
    fail "cpack made [$(echo $found)], expected [$(echo $expected_found)]"

# --- every entry of the archive, with its mode and owner -----------------------------------------
# The whole list, not a selection: a file that should not be shipped is as wrong as one missing.
dpkg-deb --contents "$deb" | awk '{ print $1, $2, $6 }' | sort -k3 >"$work/contents"
sort -k3 >"$work/expected" <<'EOF'
drwxr-xr-x root/root ./etc/
drwxr-xr-x root/root ./etc/varnholt/
drwxr-xr-x root/root ./etc/varnholt/quillmar/
-rw-r--r-- root/root ./etc/varnholt/quillmar/archive.conf
-rw-r--r-- root/root ./etc/varnholt/quillmar/writer.conf
drwxr-xr-x root/root ./lib/
drwxr-xr-x root/root ./lib/systemd/
drwxr-xr-x root/root ./lib/systemd/system/
-rw-r--r-- root/root ./lib/systemd/system/quillmar-archive.service
-rw-r--r-- root/root ./lib/systemd/system/quillmar-archive@.service
-rw-r--r-- root/root ./lib/systemd/system/quillmar-serve.service
-rw-r--r-- root/root ./lib/systemd/system/quillmarwriter.service
-rw-r--r-- root/root ./lib/systemd/system/quillmarwriter@.service
drwxr-xr-x root/root ./usr/
drwxr-xr-x root/root ./usr/bin/
-rwxr-xr-x root/root ./usr/bin/quillmar
drwxr-xr-x root/root ./usr/lib/
drwxr-xr-x root/root ./usr/lib/sysctl.d/
-rw-r--r-- root/root ./usr/lib/sysctl.d/60-quillmarwriter.conf
drwxr-xr-x root/root ./usr/sbin/
-rwxr-xr-x root/root ./usr/sbin/quillmarwriter
drwxr-xr-x root/root ./usr/share/
drwxr-xr-x root/root ./usr/share/man/
drwxr-xr-x root/root ./usr/share/man/man1/
-rw-r--r-- root/root ./usr/share/man/man1/quillmar.1.gz
drwxr-xr-x root/root ./usr/share/man/man8/
-rw-r--r-- root/root ./usr/share/man/man8/quillmarwriter.8.gz
drwxr-xr-x root/root ./var/
drwxr-xr-x root/root ./var/log/
drwxr-xr-x root/root ./var/log/varnholt/
drwxr-xr-x root/root ./var/log/varnholt/quillmar/
EOF
if ! diff -u "$work/expected" "$work/contents" >"$work/contents.diff"; then
    cat "$work/contents.diff" >&2
    fail "the package's entries differ from the expected list (- expected, + packaged)"
fi

root="$work/root"
control="$work/control"
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$control"

# --- control data --------------------------------------------------------------------------------
members=$(cd "$control" && ls | tr '\n' ' ')
[ "$members" = "conffiles control md5sums postinst postrm " ] ||
    fail "control members are [$members], expected [conffiles control md5sums postinst postrm ]"
[ "$(cat "$control/conffiles" | tr '\n' ' ')" = "/etc/varnholt/quillmar/archive.conf /etc/varnholt/quillmar/writer.conf " ] ||
    fail "conffiles is [$(cat "$control/conffiles")], expected archive.conf and writer.conf"

field() { dpkg-deb --field "$deb" "$1"; }
[ "$(field Package)" = quillmarwriter ] || fail "Package: $(field Package)"
[ "$(field Version)" = 1.0.0 ] || fail "Version: $(field Version)"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture: $(field Architecture), expected $arch"
[ "$(field Section)" = net ] || fail "Section: $(field Section)"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
depends=$(field Depends)
# Each as a package name of its own in the comma-separated list. libc6 shows that dpkg-shlibdeps
# ran; libsndfile1 comes from quillmar, Boost from both programs, adduser from postinst.
for package in 'libc6' 'libsndfile1' 'libboost-filesystem[0-9.]+' 'adduser'; do
    echo "$depends" | grep -Eq "(^|, )${package}( |,|$)" ||
        fail "Depends lacks $package: $depends"
done

for script in postinst postrm; do
    [ "$(stat -c %a "$control/$script")" = 755 ] || fail "$script is not mode 755"
    sh -n "$control/$script" || fail "$script does not parse with sh"
done

# --- the files are the sources -------------------------------------------------------------------
same() {
    cmp -s "$1" "$2" || fail "$2 differs from its source $1"
}
same "$packaging/writer.conf" "$root/etc/varnholt/quillmar/writer.conf"
same "$packaging/quillmarwriter.service" "$root/lib/systemd/system/quillmarwriter.service"
same "$packaging/quillmarwriter@.service" "$root/lib/systemd/system/quillmarwriter@.service"
for unit in quillmar-archive.service quillmar-archive@.service quillmar-serve.service; do
    same "$packaging/$unit" "$root/lib/systemd/system/$unit"
done
same "$packaging/archive.conf" "$root/etc/varnholt/quillmar/archive.conf"
same "$packaging/60-quillmarwriter.conf" "$root/usr/lib/sysctl.d/60-quillmarwriter.conf"
same "$packaging/postinst" "$control/postinst"
same "$packaging/postrm" "$control/postrm"

# --- the programs --------------------------------------------------------------------------------
writer="$root/usr/sbin/quillmarwriter"
tool="$root/usr/bin/quillmar"
"$writer" --help >/dev/null 2>&1 || fail "usr/sbin/quillmarwriter --help exited $?"
"$tool" --help >/dev/null 2>&1 || fail "usr/bin/quillmar --help exited $?"
for sub in inspect export send verify; do
    "$tool" "$sub" --help >/dev/null 2>&1 || fail "usr/bin/quillmar $sub --help exited $?"
done

# Shipped stripped, their debug information in the dbgsym package under their build ids, where
# gdb looks for it when it opens a core.
dpkg-deb --contents "$ddeb" | awk '{ print $6 }' >"$work/debug-contents"
for binary in "$writer" "$tool"; do
    if readelf --sections --wide "$binary" | grep -q '\.debug_info'; then
        fail "${binary#"$root"} is not stripped"
    fi
    id=$(readelf --notes "$binary" | awk '/Build ID:/ { print $3 }')
    [ -n "$id" ] || fail "${binary#"$root"} has no build id"
    grep -qx "./usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" "$work/debug-contents" ||
        fail "the dbgsym package has no debug file for ${binary#"$root"} (build id $id)"
done

# --- the packaged configuration is what the packaged recorder knows ------------------------------
# The recorder would keep running on this configuration. A storage that is a plain file stops it
# right after the configuration is read, before it binds the port or reserves memory, and the
# lines it logged by then say how it took every key.
conf="$root/etc/varnholt/quillmar/writer.conf"
touch "$work/not-a-directory"
status=0
"$writer" --config "$conf" --args "storage=$work/not-a-directory" >"$work/writer.log" 2>&1 ||
    status=$?
[ "$status" -eq 1 ] || {
    cat "$work/writer.log" >&2
    fail "quillmarwriter on the packaged configuration exited $status, expected 1 at the storage check"
}
grep -q 'SERVICE: storage path is not a directory or failed to create' "$work/writer.log" || {
    cat "$work/writer.log" >&2
    fail "quillmarwriter did not stop at the storage check"
}
if grep -E '\| (WARNING|ERROR) +\|' "$work/writer.log" |
    grep -vF 'SERVICE: storage path is not a directory or failed to create' >&2; then
    fail "the packaged configuration draws the warnings or errors above"
fi
keys=$(sed -n 's/^[[:space:]]*\([a-z_]*\)[[:space:]]*=.*/\1/p' "$conf")
[ "$(echo "$keys" | wc -l)" -ge 15 ] || fail "the packaged configuration sets only: $keys"
for key in $keys; do
    grep -qF "CONFIGURATION: option [$key] is set to [" "$work/writer.log" ||
        fail "quillmarwriter did not apply the key $key of the packaged configuration"
done

# The unprivileged recorder is granted the receive buffer it asks for only up to the sysctl.
size=$(sed -n 's/^receive_buffer_size[[:space:]]*=[[:space:]]*\([0-9]*\)\([KMG]\?\)$/\1 \2/p' "$conf")
read -r number unit <<<"$size"
[ -n "$number" ] || fail "receive_buffer_size of the packaged configuration is not a size"
case "$unit" in
    K) bytes=$((number << 10)) ;;
    M) bytes=$((number << 20)) ;;
    G) bytes=$((number << 30)) ;;
    *) bytes=$number ;;
esac
rmem_max=$(sed -n 's/^net\.core\.rmem_max[[:space:]]*=[[:space:]]*\([0-9]*\)$/\1/p' \
    "$root/usr/lib/sysctl.d/60-quillmarwriter.conf")
[ -n "$bytes" ] && [ -n "$rmem_max" ] && [ "$bytes" -le "$rmem_max" ] ||
    fail "receive_buffer_size ($bytes bytes) is above net.core.rmem_max ($rmem_max) of the sysctl snippet"

# --- the units, against the unpacked binary ------------------------------------------------------
# systemd-analyze verify checks that ExecStart= names an executable. With --root it looks in the
# unpacked tree, so the units are verified exactly as shipped against the binary shipped with them:
# pointing a copy's ExecStart= at the unpacked binary would verify a unit nobody installs. Under
# --root the unit search path is the tree's own, which lacks the targets every service is ordered
# against (sysinit.target, network-online.target, ...): those are copied in from this machine's
# systemd, nothing else. The instance is verified by its name, so that it comes from the packaged
# template with %i filled in. --man=no: the Documentation= page is in the tree, not in this
# machine's man path; it is checked below. A warning is a failure too: an unknown or misspelt
# directive is only a warning to systemd, and it would silently drop the line.
vroot="$work/verify-root"
cp -a "$root" "$vroot"
mkdir -p "$vroot/usr/lib/systemd/system"
cp /usr/lib/systemd/system/*.target /usr/lib/systemd/system/*.slice "$vroot/usr/lib/systemd/system/"
for unit in /lib/systemd/system/quillmarwriter.service quillmarwriter@test.service \
    quillmar-archive.service quillmar-archive@test.service quillmar-serve.service; do
    status=0
    systemd-analyze verify --man=no --root="$vroot" "$unit" >"$work/verify.log" 2>&1 || status=$?
    if [ "$status" -ne 0 ] || [ -s "$work/verify.log" ]; then
        cat "$work/verify.log" >&2
        fail "systemd-analyze verify of $unit exited $status with the output above"
    fi
done
grep -qx 'ExecStart=/usr/sbin/quillmarwriter --config /etc/varnholt/quillmar/writer.conf' \
    "$root/lib/systemd/system/quillmarwriter.service" ||
    fail "quillmarwriter.service does not start the packaged binary on the conffile"
grep -qx 'ExecStart=/usr/sbin/quillmarwriter --config /etc/varnholt/quillmar/writer-%i.conf' \
    "$root/lib/systemd/system/quillmarwriter@.service" ||
    fail "quillmarwriter@.service does not start the packaged binary on writer-%i.conf"
# Recordings are personal data: what the recorder creates, and its storage, are closed to others.
for unit in quillmarwriter.service quillmarwriter@.service; do
    for line in UMask=0027 StateDirectoryMode=0750; do
        grep -qx "$line" "$root/lib/systemd/system/$unit" || fail "$unit lacks the line $line"
    done
done

# --- the man pages -------------------------------------------------------------------------------
for page in man8/quillmarwriter.8 man1/quillmar.1; do
    gz="$root/usr/share/man/$page.gz"
    gzip --test "$gz" || fail "$page.gz is not a sound gzip file"
    gzip -dc "$gz" | cmp -s - "$packaging/$(basename "$page")" ||
        fail "$page.gz is not packaging/$(basename "$page")"
    # groff only warns, with status 0, about an unknown macro or a bad escape: its output counts.
    status=0
    gzip -dc "$gz" | groff -man -ww -z -Tutf8 >"$work/groff.log" 2>&1 || status=$?
    if [ "$status" -ne 0 ] || [ -s "$work/groff.log" ]; then
        cat "$work/groff.log" >&2
        fail "$page does not format cleanly (groff exited $status)"
    fi
done

echo "package_test: $(basename "$deb") and $(basename "$ddeb") are sound"
