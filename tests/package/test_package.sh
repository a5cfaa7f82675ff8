#!/bin/sh
# The Debian package built by tools/build-deb.sh: what it holds and what
# it must not, its control data, the example and template configurations
# checked by the packaged zalkctl, its manuals read with warnings on, and
# lintian: no error, and every warning explained in the README.
#
#   test_package.sh SOURCE_DIR PACKAGE_BUILD_DIR VERSION
set -eu
SRC=$1 BUILD=$2 VERSION=$3
FAILS=0
ok() { echo "ok   $1"; }
bad() { echo "FAIL $1"; shift; printf '%s\n' "$@" | sed 's/^/     /'; FAILS=$((FAILS + 1)); }
same() { if [ "$2" = "$3" ]; then ok "$1"; else bad "$1" "expected: $2" "got:      $3"; fi; }

DEB=$("$SRC/tools/build-deb.sh" "$BUILD")
ARCH=$(dpkg --print-architecture)
same "file name" "zalkv2d_${VERSION}_$ARCH.deb" "$(basename "$DEB")"
same "version from the project" "$VERSION" "$(dpkg-deb -f "$DEB" Version)"
deps=$(dpkg-deb -f "$DEB" Depends)
for d in iproute2 systemd libc6 libev4 libconfuse2 libmnl0 libite5; do
	case ", $deps," in *", $d"[\ ,]*) ok "depends on $d";; *) bad "depends on $d" "$deps";; esac
done
same "conffiles" "/etc/zalkv2d.conf" "$(dpkg-deb --ctrl-tarfile "$DEB" | tar -xOf - ./conffiles)"

files=$(dpkg-deb -c "$DEB" | awk '{print $6}' | grep -v '/$' | sort)
MA=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
same "contents: programs, unit, manuals, example, template, dissector, Debian's doc files" "./etc/zalkv2d.conf
./lib/systemd/system/zalkv2d.service
./usr/lib/sysusers.d/zalkv2d.conf
./usr/lib/$MA/wireshark/plugins/zalkv2.lua
./usr/sbin/zalkctl
./usr/sbin/zalkv2d
./usr/share/doc/zalkv2d/changelog.gz
./usr/share/doc/zalkv2d/copyright
./usr/share/doc/zalkv2d/examples/zalkv2d.conf
./usr/share/man/man5/zalkv2d.conf.5.gz
./usr/share/man/man8/zalkctl.8.gz
./usr/share/man/man8/zalkv2d.8.gz" "$files"
same "no test, lab or rig program" "" "$(echo "$files" | grep -E 'zalkv2d-lab|rigctl|zlab_probe|/unit_|/kernel_|bench_' || true)"

ROOT=$(mktemp -d)
trap 'rm -rf "$ROOT"' EXIT
dpkg-deb -x "$DEB" "$ROOT"
unit=$ROOT/lib/systemd/system/zalkv2d.service
# What the unit does is checked under systemd (rig/checks/package.sh); its
# sandbox's score here, where systemd-analyze reads the file offline.
rc=0
systemd-analyze security --offline=yes --threshold=24 "$unit" >/dev/null 2>&1 || rc=$?
same "unit: systemd-analyze security exposure at most 2.4" 0 $rc

# The unit's condition on the package's template (no ring) and example.
cond=$(sed -n 's/^ExecCondition=//p' "$unit" | sed 's/\$\$/$/g')
run_cond() { sh -c "$(echo "$cond" | sed "s|/etc/zalkv2d.conf|$1|")" && echo 0 || echo $?; }
same "condition: the template holds no ring" 1 "$(run_cond "$ROOT/etc/zalkv2d.conf")"
same "condition: the example holds rings" 0 "$(run_cond "$ROOT/usr/share/doc/zalkv2d/examples/zalkv2d.conf")"

for f in examples/zalkv2d.conf /etc/zalkv2d.conf; do
	case $f in /*) path=$ROOT$f;; *) path=$ROOT/usr/share/doc/zalkv2d/$f;; esac
	set +e
	out=$("$ROOT/usr/sbin/zalkctl" check "$path" 2>&1)
	rc=$?
	set -e
	same "zalkctl check $f: exit 0, no error line" "0 " "$rc $(echo "$out" | grep '^error' || true)"
done

for page in man5/zalkv2d.conf.5.gz man8/zalkv2d.8.gz man8/zalkctl.8.gz; do
	out=$(LC_ALL=C.UTF-8 man --warnings -l "$ROOT/usr/share/man/$page" 2>&1 >/dev/null)
	same "man --warnings $page: no warning" "" "$out"
done

set +e
lint=$(lintian "$DEB" 2>&1 | grep -v '^running with root privileges')
rc=$?
set -e
echo "$lint" | sed 's/^/     lintian: /'
same "lintian: no error" "" "$(echo "$lint" | grep '^E:' || true)"
for tag in $(echo "$lint" | awk '/^W:/ {print $3}' | sort -u); do
	if grep -q "\`$tag\`" "$SRC/README.md"; then
		ok "lintian warning $tag explained in the README"
	else
		bad "lintian warning $tag explained in the README"
	fi
done
[ $FAILS -eq 0 ] && echo "all passed" || echo "$FAILS failed"
[ $FAILS -eq 0 ]
