# Debian systems of their own to build and test in; read by tools/i386 and tools/clean_root. They stay
# in the cache folder and are made again only when what they are made of changes. Nothing else
# outlives a run: mounts and processes live in namespaces that end with the command.

cache=${PAVO_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/pavo}
suite=bookworm

say() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo --preserve-env=PAVO_CACHE,PAVO_CHROOT,XDG_CACHE_HOME,HOME "$@"
    fi
}

# The mirror that this machine's own apt uses for the suite; empty where it has none, and then
# mmdebstrap chooses. Several lines (components from several mirrors) count as the first.
mirror() {
    apt-get indextargets --format '$(SITE)' 'Created-By: Packages' "Codename: $suite" | head -n 1
}

# Options by which this machine's apt accepts its mirror, such as one with an old signature date.
machine_apt_options() {
    apt-config dump | grep -E '^Acquire::(Check-|http|https|Retries)[^ ]* "[^"]+";$' || true
}

# make_root NAME PACKAGES OPTION...: makes $cache/NAME, unless it is there and up to date. PACKAGES is
# a list with commas, each OPTION one of mmdebstrap. The root is thrown away one day, so nothing in
# it needs syncing to disk.
make_root() {
    local name=$1 packages=$2
    shift 2
    local root=$cache/$name recipe options=(
        --components=main --aptopt='Acquire::Languages "none"'
        --aptopt='APT::Install-Recommends "false"' --dpkgopt=force-unsafe-io "$@"
    )
    recipe=$(printf '%s\n' "$suite" "$packages" "${options[@]}" | sha256sum | cut -d ' ' -f 1)
    if [ "$(cat "$root/.pavo-stamp" 2>/dev/null)" = "$recipe" ]; then
        return
    fi
    mkdir -p "$cache"
    exec 9>"$cache/$name.lock"
    flock 9
    if [ "$(cat "$root/.pavo-stamp" 2>/dev/null)" = "$recipe" ]; then
        return  # Made by another run meanwhile.
    fi
    local started=$SECONDS new=$root.new option machine_options=() mirrors=()
    while IFS= read -r option; do
        machine_options+=("--aptopt=$option")
    done < <(machine_apt_options)
    mapfile -t mirrors < <(mirror)
    say "making $root (a minute or two, about 500 MB)"
    as_root rm -rf --one-file-system "$new"
    if ! as_root mmdebstrap --quiet "${options[@]}" "${machine_options[@]}" --include="$packages" \
        "$suite" "$new" "${mirrors[@]}" >"$cache/$name.log" 2>&1; then
        cat "$cache/$name.log" >&2
        as_root rm -rf --one-file-system "$new"
        say "the system could not be made"
        return 1
    fi
    printf '%s\n' "$recipe" | as_root tee "$new/.pavo-stamp" >/dev/null
    as_root rm -rf --one-file-system "$root"
    as_root mv "$new" "$root"
    say "made in $((SECONDS - started)) s"
}

# in_namespaces COMMAND...: alone with mounts and processes, as root.
in_namespaces() {
    as_root unshare --mount --propagation private --pid --fork --kill-child -- "$@"
}

# mount_root ROOT: what a running system has mounted. ROOT has to be a mount point.
mount_root() {
    local root=$1 node
    mount -t proc proc "$root/proc"
    mount -t sysfs sysfs "$root/sys"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    for node in null zero full random urandom tty net/tun; do
        if [ -e "/dev/$node" ]; then
            mkdir -p "$(dirname "$root/dev/$node")"
            : >"$root/dev/$node"
            mount --bind "/dev/$node" "$root/dev/$node"
        fi
    done
    ln -s /proc/self/fd "$root/dev/fd"
    mkdir "$root/dev/shm"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    mount -t tmpfs -o mode=755 tmpfs "$root/run"
}

# enter_root ROOT PERSONALITY FOLDER VARIABLE=VALUE... -- COMMAND...: runs COMMAND in FOLDER of ROOT.
enter_root() {
    local root=$1 personality=$2 folder=$3 variables=()
    shift 3
    while [ "$1" != -- ]; do
        variables+=("$1")
        shift
    done
    shift
    exec setarch "$personality" chroot "$root" /usr/bin/env -i \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" \
        "${variables[@]}" sh -c 'cd "$0" && exec "$@"' "$folder" "$@"
}
