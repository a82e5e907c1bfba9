#!/usr/bin/env bash
# Builds the Debian packages from debian/ in a copy of the tree, checks them
# with lintian, then on this machine: installs them with dpkg -i, labels a
# scratch tree with the installed tool, upgrades to the same packages rebuilt
# with a higher version, removes and purges them, and checks that nothing of
# ours is left. Every step of the install cycle runs as root and only where
# nothing of ours is installed yet; the machine is left as it was found, also
# when a step fails.
#
# Usage: deb_check.sh            (as root; from scripts/check.sh)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(zorv-label-manager-tool libzorvcommon1 libzorvcommon-dev libzorvlabelmgr1-tool
          libzorvlabelmgr-tool-dev)
# Installed or left by our packages (or by an earlier install of the tree).
our_paths=(/usr/sbin/zorv-label-manager-tool /etc/zorv/label /etc/logrotate.d/zorv-label-manager-tool
           /var/lib/zorv/label /var/log/zorv/zorv_label_manager.log /usr/include/zorv
           /usr/share/man/man8/zorv-label-manager-tool.8.gz
           /usr/share/bash-completion/completions/zorv-label-manager-tool)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
our_paths+=(/usr/lib/"$multiarch"/libzorvcommon.so.1 /usr/lib/"$multiarch"/libzorvlabelmgr.so.1)
# Shared with the framework's other programs: they must be there afterwards
# exactly when they were there before.
shared_dirs=(/etc/zorv /var/lib/zorv /var/log/zorv)

say() { printf '\n== %s\n' "$*"; }
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
installed() {  # installed PACKAGE: true while dpkg knows anything of it
    [[ -n $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null | grep -v '^not-installed$') ]]
}

[[ $(id -u) -eq 0 ]] || fail "the install cycle needs root"
for package in "${packages[@]}" libzorvlabelmgr1 libzorvlabelmgr-dev; do
    ! installed "$package" || fail "$package is installed here already; not touching it"
done
for path in "${our_paths[@]}"; do
    [[ ! -e $path ]] || fail "$path exists already; not touching it"
done
declare -A existed
for dir in "${shared_dirs[@]}"; do
    [[ -e $dir ]] && existed[$dir]=1
done

work=$(mktemp -d)
scratch=$(mktemp -d)
planted=()  # a file of another program of the framework
# Removes the planted file, and the shared directories that were not there
# before once they are empty.
remove_planted() {
    local dir
    ((${#planted[@]} == 0)) || rm -f "${planted[@]}"
    planted=()
    for dir in "${shared_dirs[@]}"; do
        [[ -n ${existed[$dir]:-} || ! -d $dir ]] || rmdir --ignore-fail-on-non-empty "$dir"
    done
}
cleanup() {
    local status=$?
    # Purging runs our postrm, which removes the state and the logs.
    local left=()
    for package in "${packages[@]}"; do
        installed "$package" && left+=("$package")
    done
    if ((${#left[@]})); then
        echo "cleaning up: purging ${left[*]}"
        dpkg -P "${left[@]}" >/dev/null || true
    fi
    remove_planted
    rm -rf "$work" "$scratch"
    exit "$status"
}
trap cleanup EXIT

# build VERSION_DIR: builds the copied tree; the packages go to VERSION_DIR.
build() {
    (cd "$work/src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" \
        dpkg-buildpackage -us -uc -b "${@:2}") >"$work/build-$1.log" 2>&1 ||
        { tail -40 "$work/build-$1.log"; fail "dpkg-buildpackage ($1)"; }
    mkdir "$work/$1"
    mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$work/$1/"
}
debs() {  # debs VERSION_DIR: our packages, without the debug symbols
    ls "$work/$1"/*.deb | grep -v -- '-dbgsym_'
}

say "build (dpkg-buildpackage -us -uc -b, DEB_BUILD_OPTIONS=nocheck)"
mkdir "$work/src"
# The tracked and new files of the work tree, without build trees.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        tar --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$work/src"
else
    tar --exclude='./build*' --exclude='./obj-*' -cf - . | tar -xf - -C "$work/src"
fi
build v1
for deb in $(debs v1); do
    printf '%-44s %7d bytes, installed %4d KiB  Depends: %s\n' "$(basename "$deb")" \
        "$(stat -c %s "$deb")" "$(dpkg-deb -f "$deb" Installed-Size)" "$(dpkg-deb -f "$deb" Depends)"
done

say "lintian --fail-on error,warning"
lintian_status=0
lintian --fail-on error,warning --display-info "$work"/v1/*.changes >"$work/lintian.log" 2>&1 ||
    lintian_status=$?
grep -v 'running with root privileges' "$work/lintian.log" || true
((lintian_status == 0)) || fail "lintian"

say "install (dpkg -i)"
dpkg -i $(debs v1) >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "dpkg -i"; }
for package in "${packages[@]}"; do
    [[ $(dpkg-query -W -f='${Status} ${Version}' "$package") == "install ok installed 1.0.0-1" ]] ||
        fail "$package not installed"
done
[[ $(stat -c %a /var/log/zorv) == 750 ]] || [[ -n ${existed[/var/log/zorv]:-} ]] ||
    fail "/var/log/zorv mode $(stat -c %a /var/log/zorv)"
[[ $(stat -c %a /var/lib/zorv/label) == 700 ]] || fail "/var/lib/zorv/label mode"
[[ $(dpkg-query -W -f='${Conffiles}' zorv-label-manager-tool) == *zorv-label-log.properties* ]] ||
    fail "log properties not a conffile"
ls -ld /var/log/zorv /var/lib/zorv/label

say "a program built against the -dev packages"
cat >"$work/user.cc" <<'END'
#include <zorvlabelmgr.h>

#include <cstdio>
#include <cstdlib>

#include <log/logger.h>

int main() {
  char* name = getPkgNameById(0);  // no package has id 0
  std::printf("package 0: %s\n", name != nullptr ? name : "(none)");
  std::free(name);
  ZLOG_INFO("built against the installed development packages");
  return 0;
}
END
g++ -std=c++17 -o "$work/user" "$work/user.cc" $(pkg-config --cflags --libs zorvlabelmgr) ||
    fail "cannot build against the -dev packages"
"$work/user" || fail "the program built against the -dev packages failed"

say "main job on a scratch tree"
mkdir -p "$scratch/tree/etc" "$scratch/tree/bin"
echo config >"$scratch/tree/etc/app.conf"
echo program >"$scratch/tree/bin/app"
zorv-label-manager-tool -a -s "$scratch/tree"
zorv-label-manager-tool -R -g -l "$scratch/tree" >"$work/labels-v1"
cat "$work/labels-v1"
for file in etc/app.conf bin/app; do
    grep -qF "$scratch/tree/$file" "$work/labels-v1" || fail "$file has no label"
done
[[ -s /var/log/zorv/zorv_label_manager.log ]] || fail "nothing logged"
ls /var/lib/zorv/label

say "log rotation (logrotate -f, copytruncate)"
logrotate -f -s "$work/logrotate.state" /etc/logrotate.d/zorv-label-manager-tool
[[ -s /var/log/zorv/zorv_label_manager.log.1 && ! -s /var/log/zorv/zorv_label_manager.log ]] ||
    fail "not rotated"
zorv-label-manager-tool -R -g -l "$scratch/tree" >/dev/null
zorv-label-manager-tool -a -s "$scratch/tree" >/dev/null
[[ -s /var/log/zorv/zorv_label_manager.log ]] || fail "nothing logged after rotation"
ls -l /var/log/zorv

say "upgrade to a rebuild with a higher version"
# A local change to the conffile must survive the upgrade.
echo "# changed here" >>/etc/zorv/label/zorv-label-log.properties
{
    printf 'zorv-label-manager-tool (1.0.0-1+ci1) unstable; urgency=medium\n\n'
    printf '  * Rebuild for the upgrade check.\n\n'
    printf ' -- zorv developers <dev@zorv.invalid>  %s\n\n' "$(date -R)"
    cat "$work/src/debian/changelog"
} >"$work/changelog" && mv "$work/changelog" "$work/src/debian/changelog"
# The same build tree, packaged again (-nc: no clean, nothing to recompile).
build v2 -nc
dpkg -i $(debs v2) >"$work/upgrade.log" 2>&1 || { cat "$work/upgrade.log"; fail "upgrade"; }
grep -E '^(Preparing|Unpacking|Setting up)' "$work/upgrade.log"
for package in "${packages[@]}"; do
    [[ $(dpkg-query -W -f='${Version}' "$package") == 1.0.0-1+ci1 ]] || fail "$package not upgraded"
done
grep -qx '# changed here' /etc/zorv/label/zorv-label-log.properties || fail "conffile change lost"
zorv-label-manager-tool -R -g -l "$scratch/tree" >"$work/labels-v2"
cmp -s "$work/labels-v1" "$work/labels-v2" || fail "labels differ after the upgrade"
echo "labels and state kept"

say "remove (dpkg -r), then purge (dpkg -P)"
# Another program of the framework logs beside us: purge must leave its log,
# and so the directory, in place.
other_log=/var/log/zorv/zorv_policy.log
[[ ! -e $other_log ]] || fail "$other_log exists already; not touching it"
echo other >"$other_log"
planted+=("$other_log")
dpkg -r "${packages[@]}" >/dev/null
[[ -e /etc/zorv/label/zorv-label-log.properties && -d /var/lib/zorv/label &&
    -e /var/log/zorv/zorv_label_manager.log ]] || fail "remove took the configuration, state or log"
echo "removed: configuration, state and log kept"
# What has neither configuration nor maintainer scripts is gone already.
left=()
for package in "${packages[@]}"; do
    installed "$package" && left+=("$package")
done
dpkg -P "${left[@]}" >/dev/null
for package in "${packages[@]}"; do
    ! installed "$package" || fail "dpkg still knows $package"
done
for path in "${our_paths[@]}" /var/log/zorv/zorv_label_manager.log.1; do
    [[ ! -e $path ]] || fail "$path left after purge"
done
[[ -f $other_log ]] || fail "purge removed $other_log"
for dir in /etc/zorv /var/lib/zorv; do
    [[ -n ${existed[$dir]:-} || ! -e $dir ]] || fail "$dir left after purge"
done
remove_planted
for dir in "${shared_dirs[@]}"; do
    if [[ -n ${existed[$dir]:-} ]]; then
        [[ -d $dir ]] || fail "$dir was there before and is gone"
    else
        [[ ! -e $dir ]] || fail "$dir is left"
    fi
done
echo "purged: no package, file or directory of ours left; the other program's log kept"
