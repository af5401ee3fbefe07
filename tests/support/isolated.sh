#!/bin/sh
# isolated.sh COMMAND...: runs a command with ports, /tmp and /dev/log of its own, so that it neither
# meets nor disturbs anything else on the machine. Where the system does not allow that, the command
# runs as it is, with HVLOGGER_SHARED=1 in its environment.
set -eu

if [ "${1-}" = --inside ]; then
    shift
    ip link set lo up
    # Private layers: what is there stays visible, what is written stays here.
    mount -t tmpfs tmpfs /mnt
    mkdir -p /mnt/up /mnt/work /mnt/dev/net /mnt/dev/pts /mnt/dev/shm
    mount -t overlay overlay -o lowerdir=/tmp,upperdir=/mnt/up,workdir=/mnt/work /tmp
    for node in null zero full random urandom tty net/tun; do
        [ -e /dev/$node ] || continue
        : >/mnt/dev/$node
        mount --bind /dev/$node /mnt/dev/$node
    done
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts /mnt/dev/pts
    mount --bind /dev/shm /mnt/dev/shm
    ln -s pts/ptmx /mnt/dev/ptmx
    ln -s /proc/self/fd /mnt/dev/fd
    mount --rbind /mnt/dev /dev
    cd "$PWD" # into the new layer, if it lies there
    exec "$@"
fi

PYTHONPATH=$(cd "$(dirname "$0")/.." && pwd)${PYTHONPATH:+:$PYTHONPATH}
export PYTHONPATH
# A chroot that is no mount point cannot be made private; there it is tried whether mounts come out.
for spaces in "--net --mount --propagation private" \
    "--user --map-root-user --net --mount --propagation private" "--net --mount --propagation unchanged"; do
    # shellcheck disable=SC2086 # the options are words
    unshare $spaces sh -c "mount -t tmpfs tmpfs /mnt && : >/mnt/inside" 2>/dev/null || continue
    if [ -e /mnt/inside ]; then
        umount /mnt
    elif unshare $spaces "$0" --inside true 2>/dev/null; then
        exec unshare $spaces "$0" --inside "$@"
    fi
done
echo "isolated.sh: no private namespaces here, running on the shared ones" >&2
HVLOGGER_SHARED=1 exec "$@"
