# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# A program or a shell on the virtual board, for those who work on one without having one. Sourced after boot.sh.

limit='' with=() share='' append='' memory=$memory_size network='' debugged='' kernel=bookworm
words=()

# parse WORD...: sets the above by the options in front; the rest is in $words.
parse() {
  while (($#)); do
    case $1 in
      --timeout | --share | --append | --memory | --net | --kernel)
        (($# >= 2)) || die_of_usage "$1 needs a value."
        ;;&
      --timeout) limit=$2 && shift 2 ;;
      --share) share=$(in_callers_folder "$2") && shift 2 ;;
      --append) append=$2 && shift 2 ;;
      --memory) memory=$2 && shift 2 ;;
      --net) network=$2 && shift 2 ;;
      --kernel) kernel=$2 && shift 2 ;;
      --gdb) debugged=yes && shift ;;
      --with)
        shift
        while (($#)) && [[ $1 != -* ]]; do
          with+=("$(in_callers_folder "$1")")
          shift
        done
        ;;
      --) shift && break ;;
      -*) die_of_usage "Unknown: $1." ;;
      *) break ;;
    esac
  done
  words=("$@")

  local file
  [[ -z $limit || $limit =~ ^[0-9]+$ ]] || die_of_usage "--timeout takes seconds, not $limit."
  [[ $memory =~ ^[1-9][0-9]*[MG]$ ]] || die_of_usage "--memory takes a size as 512M or 2G, not $memory."
  [[ $network =~ ^(user(,[0-9]+:[0-9]+)*)?$ ]] || die_of_usage "--net takes user or user,PORT:BOARD-PORT, not $network."
  local port
  for port in $(tr ',:' '  ' <<<"${network#user}"); do
    [[ $port =~ ^[1-9][0-9]{0,4}$ && $port -le 65535 ]] || die_of_usage "--net: there is no port $port."
  done
  check_kernel "$kernel"
  [[ -z $share || -d $share ]] || die "There is no directory $share to share."
  for file in "${with[@]}"; do
    [[ -f $file ]] || die "There is no file $file to take along."
    check_architecture "$file" data
  done
}

in_callers_folder() {
  if [[ $1 == /* ]]; then printf '%s\n' "$1"; else printf '%s\n' "$called_from/$1"; fi
}

# check_architecture FILE [data]: gives up where the board could not execute FILE; data may be anything else.
check_architecture() {
  local bytes
  bytes=$(od -A n -t x1 -N 20 -- "$1" | tr -d ' \n')
  case $bytes in
    7f454c46*)
      # 32 bits, the lower byte first, and ARM.
      [[ ${bytes:8:4}${bytes:36:4} == 01012800 ]] ||
        die "$1 is a program for another machine than the board, which is a 32-bit ARM."
      ;;
    2321*) ;;
    *) [[ ${2:-} == data ]] || die "$1 is neither a program nor a script." ;;
  esac
}

# is_arm FILE: whether it is a program or library for the board.
is_arm() {
  [[ -f $1 ]] && ("$target-readelf" -h -- "$1" 2>/dev/null | grep -q 'Machine:.*ARM$')
}

# add_libraries FOLDER FILE...: copies into FOLDER the libraries that the files need and the board does not have, as the
# loader would find them here.
add_libraries() {
  local into=$1 files=("${@:2}") file needed name found place places dynamic
  while ((${#files[@]})); do
    file=${files[0]} files=("${files[@]:1}")
    is_arm "$file" || continue
    dynamic=$("$target-readelf" -d -- "$file")
    needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
    places=$(sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]/\2/p' <<<"$dynamic" | sed "s|\${\?ORIGIN}\?|${file%/*}|g")
    for name in $needed; do
      found=''
      while IFS= read -r place; do
        if [[ -z $found ]] && is_arm "$place/$name"; then
          found=$place/$name
        fi
      done < <(printf '%s\n' "${with[@]%/*}" "$into" && tr ':' '\n' <<<"$places:${LD_LIBRARY_PATH:-}" && printf '%s\n' \
        "${file%/*}" "$folder/payload/usr/lib/$target" "$cache"/root/{usr/,}lib{,"/$target"} \
        "/usr/$target/lib" "/usr/lib/$target")
      case $found in
        '') die "$file needs $name, which is neither on the board nor here; name it with --with." ;;
        "$into"/* | "$folder/payload"/* | "$cache/root"/*) ;;
        *)
          cp -L -- "$found" "$into/$name"
          files+=("$found")
          found_in+=("${found%/*}")
          ;;
      esac
    done
  done
}

# find_port: a port of this machine on which nobody listens.
find_port() {
  port=$((20000 + $$ % 20000))
  while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do
    port=$((port + 1))
  done
}

# machine: sets options and arguments to the emulated machine as the caller wants it.
machine() {
  options=("${virt[@]}" -m "$memory" -chardev "null,id=uart" -device "pci-serial,chardev=uart"
    -chardev "null,id=output" -device "pci-serial,chardev=output")
  arguments="$kernel_options console=ttyAMA0 iomem=relaxed"
  local modules=softdog,veth,virtio_pci,virtio_net,virtio_console forward card='user,id=net,ipv6=off' size
  size=${memory%[MG]}
  [[ $memory != *G ]] || size=$((size * 1024))
  if ((size >= ${memory_size%M})); then
    options+=(-dtb "$device_tree")
  else
    printf 'With less than %s of memory, /dev/ttyS2 has no UART.\n' "$memory_size" >&2
  fi
  if [[ -n $network ]]; then
    arguments+=' BOARD_NET=user'
    for forward in $(tr ',' ' ' <<<"${network#user}"); do
      card+=",hostfwd=tcp:127.0.0.1:${forward%:*}-:${forward#*:}"
    done
    options+=(-netdev "$card" -device "virtio-net-pci,netdev=net,romfile=")
  else
    options+=("${network_card[@]}")
  fi
  if [[ -n $share ]]; then
    modules+=,9p,9pnet_virtio
    arguments+=' BOARD_SHARE=1'
    options+=(-virtfs "local,path=${share//,/,,},mount_tag=share,security_model=none")
  fi
  arguments+=" BOARD_MODULES=$modules $append"
}

# take_along FOLDER [PROGRAM]: what the caller wants on the board beyond the image, with its libraries.
take_along() {
  mkdir -p "$1/root/payload/lib"
  found_in=()
  if ((${#with[@]})); then
    cp -L -- "${with[@]}" "$1/root/payload/"
  fi
  add_libraries "$1/root/payload/lib" "${@:2}" "${with[@]}"
}

run_program() {
  ((${#words[@]})) || die_of_usage "Which program?"
  local given=${words[0]} program name run options arguments port status=0 reading=() input
  program=$(in_callers_folder "$given")
  if [[ -f $program ]]; then
    [[ -x $program ]] || die "$program may not be executed."
    check_architecture "$program"
  elif [[ $given == */* ]]; then
    die "There is no file $program."
  else
    program=''
  fi

  # The output is the program's.
  prepare "$kernel" >&2
  if [[ -n $debugged ]]; then
    install_missing gdb-multiarch=gdb-multiarch >&2
    fetch gdb gdbserver >&2
  fi
  if [[ -z $program ]]; then
    program=$(programs armhf | awk -F / -v name="$given" '$NF == name { print; exit }')
    [[ -n $program ]] ||
      die "There is no program $given, neither here nor among the examples and the board's tests."
    given=''
  fi
  prepared "$kernel"
  run=$mine/run name=${program##*/}
  if [[ -n $debugged ]]; then
    find_port
    network=${network:-user},$port:2345
    with+=("$cache/gdb/usr/bin/gdbserver")
    make_run "$run" "exec gdbserver --once 0.0.0.0:2345 $(quote "/payload/$name" "${words[@]:1}")"
  else
    make_run "$run" "exec $(quote "/payload/$name" "${words[@]:1}")"
  fi
  [[ -z $share ]] || sed -i '1a cd /share' "$run/root/payload/run"
  take_along "$run" "$program"
  if [[ -n $given ]]; then
    cp -L -- "$program" "$run/root/payload/$name"
  fi
  if [[ -n $debugged ]]; then
    printf 'As soon as it listens, in another terminal:\n  %s\n' "$(debugger_line "$port" "$program")" >&2
  fi

  machine
  : >"$run/console"
  mkfifo "$run/stdout" "$run/stderr"
  cat -- "$run/stdout" &
  reading+=($!)
  cat -- "$run/stderr" >&2 &
  reading+=($!)
  # The emulator changes the settings of a terminal on its standard input, but not through a pipe.
  exec {input}< <(exec cat <&0)
  local feeding=$!
  emulate "$run" "${limit:-$([[ -n $debugged ]] && echo 0 || echo 600)}" "${options[@]}" \
    -append "$arguments BOARD_OUTPUT=ports" -serial "file:$run/console" -device virtio-serial-pci \
    -chardev "stdio,id=stdin,signal=off" -device "virtserialport,chardev=stdin,name=stdin" \
    -chardev "file,id=stdout,path=$run/stdout" -device "virtserialport,chardev=stdout,name=stdout" \
    -chardev "file,id=stderr,path=$run/stderr" -device "virtserialport,chardev=stderr,name=stderr" \
    <&"$input" >"$run/stdin-echo"
  exec {input}<&-
  kill "$feeding" 2>/dev/null || true
  # If the emulator has not got that far, nobody else has opened these.
  : <>"$run/stdout" <>"$run/stderr"
  wait "${reading[@]}" || true
  grep '^BOARD-COMPLAINT' "$run/console" >&2 || true
  if ! status=$(verdict "$run"); then
    show_end "$run"
    status=$no_verdict
  else
    rm -rf -- "$mine"
  fi
  return "$status"
}

# debugger_line PORT PROGRAM: the debugger with the files that the board's are made from.
debugger_line() {
  local places
  places=$(printf '%s\n' "$folder/armhf/stage/lib" "${found_in[@]}" | sort -u | paste -sd :)
  printf "gdb-multiarch -ex 'set sysroot %s' -ex 'set solib-search-path %s' -ex 'target remote localhost:%s' %s\n" \
    "$cache/root" "$places" "$1" "$(quote "$2")"
}

run_shell() {
  ((${#words[@]} == 0)) || die_of_usage "Too many words."
  [[ -z $debugged$limit ]] || die_of_usage "A shell takes neither --gdb nor --timeout."
  local run options arguments
  # The output is the program's.
  prepare "$kernel" >&2
  prepared "$kernel"
  run=$mine/shell
  take_along "$run"
  machine
  cat -- "$mine/$kernel.image" >"$run/initramfs"
  archive "$run/root" >>"$run/initramfs"
  qemu-system-arm "${options[@]}" -kernel "$cache/kernel-$kernel/vmlinuz" -initrd "$run/initramfs" \
    -display none -no-reboot -nic none "${semihosting[@]}" -append "$arguments" -serial mon:stdio
}
