#!/bin/sh
# Starts systemd as the first process of a machine of its own: namespaces, control groups, and the files of this machine
# under a layer that goes with it. Called by machine.py, as root.
#
#   boot.sh FOLDER GROUP
#
# FOLDER/files is laid over this machine's files, FOLDER/units holds all the units that systemd knows. GROUP is the name
# of the control groups, which the caller removes. FOLDER/pid tells the id of systemd's process, once its files are its
# own: who enters them earlier would be in this machine's.
set -eu
umask 022

folder=$1
group=$2
stage=${3:-outside}
groups=/sys/fs/cgroup
if [ -e "$groups/cgroup.controllers" ]; then
  hierarchies=$groups
else
  hierarchies=$(for path in "$groups"/*; do [ -L "$path" ] || [ ! -e "$path/cgroup.procs" ] || echo "$path"; done)
fi

if [ "$stage" = outside ]; then
  for hierarchy in $hierarchies; do
    mkdir "$hierarchy/$group"
    for resource in cpuset.cpus cpuset.mems; do # nobody can be moved to where there are none
      if [ "$hierarchy" != "$groups" ] && [ -e "$hierarchy/$resource" ]; then
        cat "$hierarchy/$resource" >"$hierarchy/$group/$resource"
      fi
    done
  done
  exec unshare --mount --pid --fork --kill-child --ipc --uts --net -- "$0" "$folder" "$group" first
fi

if [ "$stage" = first ]; then
  # Nobody but systemd and what it starts may be in the group, or it could not share out its resources.
  for hierarchy in $hierarchies; do
    echo 0 >"$hierarchy/$group/cgroup.procs"
  done
  exec unshare --cgroup -- "$0" "$folder" "$group" inside
fi

read -r process _ </proc/self/stat # /proc is still that of this machine
exec 3>"$folder/pid"

layer=$folder/layer
root=$folder/root
mkdir "$layer" "$root"
mount -t tmpfs -o mode=755 tmpfs "$layer"
mkdir "$layer/upper" "$layer/work"
mount -t overlay -o "lowerdir=/,upperdir=$layer/upper,workdir=$layer/work" overlay "$root"

# The settings of the kernel are those of this machine, too.
mount -t proc proc "$root/proc"
for path in sys sysrq-trigger; do
  [ -e "$root/proc/$path" ] || continue
  mount --bind "$root/proc/$path" "$root/proc/$path"
  mount -o remount,bind,ro "$root/proc/$path"
done
mount -t sysfs -o ro sysfs "$root/sys"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
for device in null zero full random urandom tty; do
  touch "$root/dev/$device"
  mount --bind "/dev/$device" "$root/dev/$device"
done
mkdir "$root/dev/pts" "$root/dev/shm" "$root/dev/hugepages"
mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
mount -t tmpfs -o mode=755 tmpfs "$root/dev/hugepages"

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

mkdir -p "$root/run/user/1000" # as where somebody has logged in
mount -t tmpfs -o mode=700,uid=1000,gid=1000,nosuid,nodev tmpfs "$root/run/user/1000"

cp -a "$folder/files/." "$root/"
mkdir "$root/run/units" "$root/run/before"
cp -a "$folder/units/." "$root/run/units/"
cd "$root"
pivot_root . run/before
umount -l run/before
mount --make-rshared / # as systemd does where it finds no container
echo "$process" >&3
exec 3>&-
exec env -i container=machine PATH=/usr/sbin:/usr/bin:/sbin:/bin SYSTEMD_UNIT_PATH=/run/units \
  setpriv --bounding-set=-sys_module,-sys_time,-sys_rawio,-sys_boot,-syslog \
  /lib/systemd/systemd --system --unit=machine.target --show-status=no
