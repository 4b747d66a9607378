# For scripts that source it: a Debian that has nothing else. As root, or as a user with sudo.

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)

# fresh_debian RELEASE ROOT: makes one from where this machine gets its own packages. In a folder
# DEBIAN_CACHE it is kept for the next that is wanted, with the lists of packages.
fresh_debian() {
    local release=$1 root=$2 kept=${DEBIAN_CACHE:+$DEBIAN_CACHE/$1.tar} mirror own
    own=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' "Codename: $own" \
        'Component: main' 'Origin: Debian' | head -n 1)
    if [ -n "$kept" ] && [ -e "$kept" ]; then
        mkdir "$root"
        "${as_root[@]}" tar -xpf "$kept" -C "$root"
        "${as_root[@]}" mount -t proc proc "$root/proc"
        return
    fi
    "${as_root[@]}" debootstrap --variant=minbase "$release" "$root" \
        "${mirror:?no mirror known}" >/dev/null
    "${as_root[@]}" mount -t proc proc "$root/proc" # programs find their libraries by way of it
    "${as_root[@]}" cp /etc/resolv.conf "$root/etc/resolv.conf"
    "${as_root[@]}" cp -rL /etc/apt/apt.conf.d "$root/etc/apt/"
    echo 'APT::Install-Recommends "false";' |
        "${as_root[@]}" tee "$root/etc/apt/apt.conf.d/90-no-more" >/dev/null
    # It is thrown away: nothing in it needs to outlive a power cut.
    echo force-unsafe-io | "${as_root[@]}" tee "$root/etc/dpkg/dpkg.cfg.d/unsafe-io" >/dev/null
    "${as_root[@]}" chroot "$root" apt-get -q update >/dev/null
    [ -z "$kept" ] || "${as_root[@]}" tar --one-file-system -cpf "$kept" -C "$root" .
}

# end_debian ROOT: ends what was started in there, by its root, and removes it.
end_debian() {
    local folder
    "${as_root[@]}" sh -c 'for process in /proc/[0-9]*; do
        [ "$(readlink "$process/root")" != "$1" ] || kill "${process#/proc/}"
    done' sh "$1" || true
    for folder in tmp/.X11-unix dev/pts proc; do
        if mountpoint -q "$1/$folder"; then
            "${as_root[@]}" umount "$1/$folder"
        fi
    done
    "${as_root[@]}" rm -rf --one-file-system "$1"
}

# in_debian ROOT COMMAND...: with nothing of this environment.
in_debian() {
    local root=$1
    shift
    "${as_root[@]}" chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
