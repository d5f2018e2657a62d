# Sourced by fetch and run: where the virtual machine's kernel and userland lie, and how their names are made.
# The names carry a hash of everything the contents depend on, so a change of list or script fetches anew.
# shellcheck shell=bash

vm_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
vm_cache=${CEILMETER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/ceilmeter}/vm

# The kernel modules of the initramfs; modprobe puts what they need before them.
# shellcheck disable=SC2034
vm_modules=(virtio_pci 9pnet_virtio 9p overlay)

vm_stamp() { cat "$@" | sha256sum | cut -c 1-16; }

# Read by the scripts that source this file.
# shellcheck disable=SC2034
{
  vm_kernel=$vm_cache/kernel-$(vm_stamp "$vm_dir/fetch" "$vm_dir/common.sh" "$vm_dir/init" /etc/debian_version)
  vm_userland=$vm_cache/userland-$(vm_stamp "$vm_dir/fetch" "$vm_dir/userland.txt" /etc/debian_version)
}

vm_say() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }

vm_have_all() { [[ -d $vm_kernel && -d $vm_userland ]]; }
