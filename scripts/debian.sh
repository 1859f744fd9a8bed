# Bare Debian systems out of what apt knows on this machine. Sourced, from the checkout's folder, by scripts that run as root.
# shellcheck shell=bash

# debian_sources SUITE: Debian's own archives among the sources of this machine, for the suite wanted; empty when there is none.
debian_sources() {
  local found
  found=$(list_debian_sources "$1")
  if [ -z "$found" ]; then  # the lists, which say whose an archive is, may not be there yet
    apt-get -qq update >/dev/null 2>&1
    found=$(list_debian_sources "$1")
  fi
  printf '%s\n' "$found"
}
list_debian_sources() {
  # shellcheck disable=SC2016  # the fields are apt's
  apt-get indextargets --format '$(ORIGIN)|$(CODENAME)|$(REPO_URI)|$(COMPONENT)' 'Created-By: Packages' 2>/dev/null |
    sort -u | while IFS='|' read -r origin codename uri component; do
      [ "$origin" = Debian ] && [ "$component" = main ] || continue
      case $codename in *-backports* | *-proposed-updates) continue ;; esac
      echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri $1${codename#"${codename%%-*}"} $component"
    done
}
# How apt reaches them from here.
debian_settings() { apt-config dump | grep -E '^Acquire::((http|https|ftp)(::| )|Check-|Retries)' | grep -v '::Ca\(Info\|Path\)'; }

# make_debian SUITE SOURCES FOLDER WHAT PACKAGES [OPTION…]: prints the path of a minimal system with these packages beside, a tar
# file of today in FOLDER; WHAT is for the line that says so. False when none can be made: `debian_problem FOLDER` says why. The
# options are mmdebstrap's; what is left in FOLDER as made.PID* is the caller's to remove.
make_debian() {
  local suite=$1 sources=$2 folder=$3 what=$4 packages=$5 settings key made
  shift 5
  settings=$(debian_settings)
  find "$folder" -maxdepth 1 -name '*.tar' -mtime +0 -delete
  key=$(cksum <<<"$sources$settings$packages$*")
  made=$folder/$suite-$(date +%F)-${key% *}.tar
  if [ ! -e "$made" ]; then
    say "making $what"
    printf '%s\n' "$settings" >"$folder/made.$$.conf"
    mmdebstrap --quiet --variant=minbase --aptopt="$folder/made.$$.conf" ${packages:+--include="$packages"} "$@" \
      "$suite" "$folder/made.$$.tar" - <<<"$sources" >"$folder/made.$$.log" 2>&1 || return 1
    mv "$folder/made.$$.tar" "$made" || return 1
  fi
  echo "$made"
}
debian_problem() { grep '^E:' "$1/made.$$.log" | tail -n 1; }
