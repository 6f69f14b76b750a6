#!/bin/sh
# Starts systemd as the first process of a machine of its own: namespaces, control groups, and the files of this machine
# under a layer that goes with it. Called by machine.py, as root.
#
#   boot.sh FOLDER GROUP
#
# FOLDER/files is laid over this machine's files, FOLDER/units holds all the units that systemd knows. GROUP is the name
# of the control groups, which the caller removes. FOLDER/pid tells the id of systemd's process.
set -eu

folder=$1
group=$2
groups=/sys/fs/cgroup
if [ -e "$groups/cgroup.controllers" ]; then
  hierarchies=$groups
else
  hierarchies=$(for path in "$groups"/*; do [ -L "$path" ] || [ ! -e "$path/cgroup.procs" ] || echo "$path"; done)
fi

if [ "${3:-}" != inside ]; then
  for hierarchy in $hierarchies; do
    mkdir "$hierarchy/$group"
    for resource in cpuset.cpus cpuset.mems; do # nobody can be moved to where there are none
      [ -s "$hierarchy/$group/$resource" ] || [ ! -e "$hierarchy/$resource" ] ||
        cat "$hierarchy/$resource" >"$hierarchy/$group/$resource"
    done
    echo $$ >"$hierarchy/$group/cgroup.procs"
  done
  exec unshare --mount --pid --fork --kill-child --ipc --uts --cgroup -- "$0" "$folder" "$group" inside
fi

read -r process _ </proc/self/stat # /proc is still that of this machine
echo "$process" >"$folder/pid"

layer=$folder/layer
root=$folder/root
mkdir "$layer" "$root"
mount -t tmpfs -o mode=755 tmpfs "$layer"
mkdir "$layer/upper" "$layer/work"
mount -t overlay -o "lowerdir=/,upperdir=$layer/upper,workdir=$layer/work" overlay "$root"

# What belongs to the kernel as a whole is not to be changed from in here.
mount -t proc proc "$root/proc"
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
for device in null zero full random urandom tty; do
  touch "$root/dev/$device"
  mount --bind "/dev/$device" "$root/dev/$device"
done
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"

if [ "$hierarchies" = "$groups" ]; then
  mount -t cgroup2 cgroup2 "$root$groups"
else
  mount -t tmpfs -o mode=755 tmpfs "$root$groups"
  for hierarchy in $hierarchies; do
    mkdir "$root$hierarchy"
    case ${hierarchy#"$groups/"} in
      systemd) mount -t cgroup -o none,name=systemd cgroup "$root$hierarchy" ;;
      unified) mount -t cgroup2 cgroup2 "$root$hierarchy" ;;
      *) mount -t cgroup -o "${hierarchy#"$groups/"}" cgroup "$root$hierarchy" ;;
    esac
  done
fi

cp -a "$folder/files/." "$root/"
mkdir "$root/run/units" "$root/run/before"
cp -a "$folder/units/." "$root/run/units/"
cd "$root"
pivot_root . run/before
umount -l run/before
exec env -i container=machine PATH=/usr/sbin:/usr/bin:/sbin:/bin SYSTEMD_UNIT_PATH=/run/units /lib/systemd/systemd \
  --system --unit=machine.target --show-status=no
