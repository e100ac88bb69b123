# SPDX-License-Identifier: MIT
# What a whole boot of a PC takes: sourced by ./run boot and ./test behind common.sh.

boot_packages=(qemu-system-x86 ipxe-qemu grub-pc-bin grub-common busybox-static fdisk e2fsprogs cpio python3)
boot_kernel="$root/build/boot/kernel"

# The packages, and the newest kernel for virtual machines, which is unpacked and never installed.
need_boot() {
    need_packages "${boot_packages[@]}"
    export QRN_BOOT_KERNEL="$boot_kernel" QRN_BIN="$bin" PATH="$PATH:/usr/sbin:/sbin"
    [ ! -e "$boot_kernel/done" ] || return 0
    say "fetching a kernel for the PC to boot"
    local log="$root/build/packages.log" package
    rm -rf "$boot_kernel"
    mkdir -p "$boot_kernel"
    package=$(apt-cache depends linux-image-cloud-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-[0-9]\)/\1/p' | head -n 1)
    if [ -z "$package" ]; then
        as_root apt-get update >>"$log" 2>&1 || true
        package=$(apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: \(linux-image-[0-9]\)/\1/p' | head -n 1)
    fi
    [ -n "$package" ] || fail "no package linux-image-cloud-amd64 to be had"
    (cd "$boot_kernel" && apt-get download "$package" && dpkg -x "$package"_*.deb . && rm "$package"_*.deb) \
        >>"$log" 2>&1 || fail "could not fetch $package (see build/packages.log)"
    touch "$boot_kernel/done"
}
