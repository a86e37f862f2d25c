#!/usr/bin/env bash
# Fetches what the arm64 test machine (machine.py) of one Debian release
# boots from into <cache-root>/<release>: that release's arm64 kernel (the
# one its linux-image-arm64 depends on), busybox-static, exfatprogs and the
# libraries exfatprogs loads, its C library among them. The packages are
# downloaded with apt-get download and unpacked under <release>/root, never
# installed. Whatever is already in the cache is skipped.
#
#   test/kernel/fetch.sh [--mirror URI] <cache-root> <release>
#
# <release> is bullseye (Debian 11), bookworm (12), trixie (13) or sid
# (unstable). The apt sources are this machine's own: each Debian source
# whose suite is this machine's release (or its -updates and -security), with
# <release> in its place (sid has only its plain suite); --mirror URI takes
# that one mirror instead. apt runs with a state and cache of its own under
# <release>/apt, so the host's apt state is never touched.
#
# Leaves <release>/kernel-release naming the kernel (e.g. 5.10.0-32-arm64),
# with root/boot/vmlinuz-<kernel> (or root/lib/modules/<kernel>/vmlinuz, where
# the newest packages put it) and root/lib/modules/<kernel>/modules.dep
# (the package ships no modules.dep: depmod makes it, as its postinst
# would), and <release>/versions with what was fetched. When something is
# missing (the mirror does not serve the release, the kernel has no exfat
# module) it says so on one line, writes that line to <release>/unavailable,
# which machine.py reports in place of booting, and exits 1.
set -euo pipefail
usage() { echo "usage: $0 [--mirror URI] <cache-root> <release>" >&2; exit 2; }
mirror=
if [[ ${1-} == --mirror ]]; then
  [[ $# -ge 2 ]] || usage
  mirror=$2
  shift 2
fi
[[ $# -eq 2 ]] || usage
release=$2
case "$release" in
  bullseye | bookworm | trixie | sid) ;;
  *) echo "fetch: unknown release '$release': known are bullseye, bookworm, trixie and sid" >&2; exit 2 ;;
esac
cache=$(realpath -m "$1/$release")
mkdir -p "$cache/debs" "$cache/root" "$cache/apt/lists/partial" "$cache/apt/archives/partial"
rm -f "$cache/unavailable"

missing() {
  echo "fetch: $release: $*" >&2
  echo "$*" >"$cache/unavailable"
  exit 1
}

# This machine's Debian sources, with the release's name in the suites.
sources() {
  if [[ -n $mirror ]]; then
    echo "$mirror $release"
    return
  fi
  local host
  host=$(. /etc/os-release && echo "${VERSION_CODENAME-}")
  [[ -n $host ]] || return 0
  apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 2>/dev/null | sort -u |
    while read -r uri suite; do
      case "$suite" in
        "$host") echo "$uri $release" ;;
        "$host"-*) [[ $release == sid ]] || echo "$uri $release-${suite#"$host"-}" ;;
      esac
    done
}
sources | while read -r uri suite; do
  echo "deb [arch=arm64 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri $suite main"
done >"$cache/apt/sources.list"
[[ -s "$cache/apt/sources.list" ]] ||
  missing "no Debian mirror in this machine's apt sources (give one with --mirror URI)"

touch "$cache/apt/status"
apt_options=(
  -o "Dir::State=$cache/apt" -o "Dir::State::status=$cache/apt/status"
  -o "Dir::Cache=$cache/apt" -o "Dir::Etc::SourceList=$cache/apt/sources.list"
  -o Dir::Etc::SourceParts=/dev/null -o Dir::Etc::Preferences=/dev/null
  -o Dir::Etc::PreferencesParts=/dev/null
  -o APT::Architecture=arm64 -o APT::Architectures::=arm64
  -o Debug::NoLocking=1 -o APT::Sandbox::User=root
)
if [[ ! -e "$cache/apt/updated" ]]; then
  if ! errors=$(apt-get "${apt_options[@]}" -qq update 2>&1 >/dev/null) ||
     grep -q '^[EW]:' <<<"$errors"; then
    missing "the mirror does not serve it: $(grep -m1 '^[EW]:' <<<"$errors" || echo "$errors" | head -n 1)"
  fi
  touch "$cache/apt/updated"
fi

apt_cache() { apt-cache "${apt_options[@]}" "$@" 2>/dev/null; }

# Downloads a package into debs/ (unless it is there) and unpacks it. A
# mirror can list a version it no longer serves (seen with a release whose
# security support has ended): the versions below it are tried in turn.
fetch() {
  local name=$1 deb version
  if ! compgen -G "$cache/debs/${name}_*.deb" >/dev/null; then
    echo "fetch: $release: downloading $name"
    for version in $(apt_cache madison "$name" | awk -F' [|] ' '{ print $2 }' | awk '!seen[$0]++'); do
      rm -rf "$cache/partial"
      mkdir "$cache/partial"
      if (cd "$cache/partial" && apt-get "${apt_options[@]}" -qq download "$name=$version" 2>/dev/null); then
        mv "$cache/partial"/*.deb "$cache/debs/"
        break
      fi
      echo "fetch: $release: $name $version is listed but not served; trying the one before it" >&2
    done
    rm -rf "$cache/partial"
    compgen -G "$cache/debs/${name}_*.deb" >/dev/null || return 1
  fi
  for deb in "$cache/debs/${name}"_*.deb; do
    if [[ ! -e "$deb.unpacked" ]]; then
      dpkg-deb -x "$deb" "$cache/root"
      touch "$deb.unpacked"
    fi
  done
}

# The kernel packages that linux-image-arm64's versions name, newest first;
# the first that can be downloaded whole is taken. Newer kernels
# come in parts (linux-binary-*, linux-modules-*), which the image package
# depends on by the kernel's name.
kernels=$(apt_cache madison linux-image-arm64 | awk -F' [|] ' '{ print $2 }' |
  while read -r version; do
    apt_cache show "linux-image-arm64=$version" | sed -n 's/^Depends: //p' |
      grep -o 'linux-image-[0-9][^ ,]*' | head -n 1
  done | awk '!seen[$0]++')
[[ -n "$kernels" ]] || missing "the mirror has no linux-image-arm64 package for arm64"
# The kernel fetched before stays until the cache is removed.
package=
if [[ -s "$cache/kernel-release" ]]; then
  kept=linux-image-$(<"$cache/kernel-release")
  grep -qx -- "$kept" <<<"$kernels" && kernels=$kept
fi
for candidate in $kernels; do
  kernel=${candidate#linux-image-}
  parts=$(apt_cache depends "$candidate" | sed -n 's/^ *Depends: \(linux-[a-z]*-.*\)$/\1/p' |
    awk -v k="-$kernel" 'substr($0, length($0) - length(k) + 1) == k')
  ok=true
  for name in "$candidate" $parts; do fetch "$name" || { ok=false; break; }; done
  if $ok; then package=$candidate; break; fi
  echo "fetch: $release: $name could not be downloaded; trying the kernel before it" >&2
done
[[ -n "$package" ]] || missing "none of its arm64 kernels could be downloaded ($(echo $kernels))"

# busybox and exfatprogs with every library it loads, down to the C library.
libraries=$(apt_cache depends --recurse --no-recommends --no-suggests \
  --no-conflicts --no-breaks --no-replaces --no-enhances exfatprogs | grep -v '^[ <]')
for name in busybox-static $libraries; do
  fetch "$name" || missing "could not download $name"
done

# Debian 13 on keeps modules in /usr/lib/modules only; depmod and
# machine.py look in lib/modules.
if [[ ! -e "$cache/root/lib/modules" && -d "$cache/root/usr/lib/modules" ]]; then
  mkdir -p "$cache/root/lib"
  ln -s ../usr/lib/modules "$cache/root/lib/modules"
fi
modules=$cache/root/lib/modules/$kernel
[[ -d $modules ]] || missing "$package has no modules in lib/modules/$kernel"
if [[ ! -e "$modules/modules.dep" ]]; then
  command -v depmod >/dev/null || PATH=$PATH:/sbin:/usr/sbin
  depmod -b "$cache/root" "$kernel"
fi
[[ -f "$cache/root/boot/vmlinuz-$kernel" || -f "$modules/vmlinuz" ]] ||
  missing "$package has no kernel image (boot/vmlinuz-$kernel)"
grep -qE '(^|/)exfat\.ko' "$modules/modules.dep" "$modules/modules.builtin" ||
  missing "$package has no exfat module (neither in modules.dep nor built in)"

version() { dpkg-deb -f "$(compgen -G "$cache/debs/${1}_*.deb" | head -n 1)" Version; }
{
  echo "kernel $kernel ($package $(version "$package"))"
  echo "exfatprogs $(version exfatprogs)"
  echo "busybox-static $(version busybox-static)"
  echo "libc6 $(version libc6)"
} >"$cache/versions"
echo "$kernel" >"$cache/kernel-release"
