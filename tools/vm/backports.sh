# Sourced behind common.sh by what fetches packages of the distribution's backports: apt with lists and folders of its
# own below $work, so that nothing of this machine changes. backports_begin reads the lists first.
# shellcheck shell=bash

backports_failed() {
  vm_say "cannot download $*"
  exit 1
}

backports_begin() {
  # The mirror that this machine has its own packages from. Apt expands the names.
  local mirror keys=/usr/share/keyrings/debian-archive-keyring.gpg
  backports_release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  [[ -n $backports_release ]] || backports_failed "backports of this distribution, which has no code name"
  # shellcheck disable=SC2016
  mirror=$(apt-get indextargets --format '$(CODENAME) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    sed -n "s/^$backports_release main //p" | sort -u | head -n 1)
  [[ -n $mirror ]] || backports_failed "from no mirror of $backports_release"
  # shellcheck disable=SC2154  # made by the script that sources this
  mkdir -p "$work"/{lists,cache/archives}/partial "$work/parts" "$work/tree"
  printf 'deb [signed-by=%s] %s %s-backports main\n' "$keys" "$mirror" "$backports_release" > "$work/sources.list"
  : > "$work/status"
  apt_backports apt-get update >&2 || backports_failed "the lists of $backports_release-backports"
}

apt_backports() { # COMMAND ARGUMENT...
  local command=$1
  shift
  "$command" -qq -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts="$work/parts" \
    -o Dir::State::lists="$work/lists" -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache" \
    -o Debug::NoLocking=true -o APT::Sandbox::User= "$@"
}
