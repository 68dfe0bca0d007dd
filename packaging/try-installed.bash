# The second half of scripts/try-packages, which reads this file among mounts and
# processes of its own, so that all of it ends with the script: the packages are
# installed in the bare Debian, and the service is run there.

run=$root/run # in memory
database=/run/quillondatabase/DMLiveObjectDatabase.db
ready_key=Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady
fan=0x00400003 # one of the stand-in's objects

# wait_until WHAT COMMAND...
wait_until() {
    local deadline=$((SECONDS + 60)) what=$1
    shift
    until "$@"; do
        ((SECONDS < deadline)) || {
            tail -n 20 "$work"/{service,watch,bus}.log >&2
            fail "did not happen in time: $what"
        }
        sleep 0.1
    done
}

enter=(chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin
    LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
    ${http_proxy:+"http_proxy=$http_proxy"}
    QDB_STANDIN_SOCKET=/run/quillondatabase/dm.sock)

# With offline set, without a network.
in_root() {
    ${offline:+unshare --net} "${enter[@]}" "$@"
}

apt() {
    quietly in_root apt-get -qy -o APT::Sandbox::User=root "$@"
}

enter_root() {
    local device
    rm -rf --one-file-system "$root"
    cp -a "$bare" "$root"
    cp -L /etc/resolv.conf "$root/etc/"
    mount -t proc proc "$root/proc"
    mount -t tmpfs tmpfs "$run"
    mount -t tmpfs tmpfs "$root/tmp"
    mount -t tmpfs tmpfs "$root/dev"
    for device in null zero full random urandom; do
        touch "$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
    ln -s /proc/self/fd "$root/dev/fd"
    mkdir -p "$archives/partial"
    mount --bind "$archives" "$root/var/cache/apt/archives"
}

# What the packages say they need of Debian, as one line.
dependencies() {
    local name
    for name in "${names[@]}"; do
        dpkg-deb -f "$work/${name}"_*.deb Depends
        echo
    done | tr ',' '\n' | sed 's/^ *//; /^$/d; /quillondb/d' | sort -u |
        paste -s -d ,
}

# Every file but those that each run of apt writes anew.
list_files() {
    in_root find / -xdev \( -path /var/cache -o -path /var/lib/apt \
        -o -path /var/log/apt -o -path '/var/lib/dpkg/*-old' \) -prune \
        -o -printf '%p %y %m %u:%g %l\n' | sort
    in_root find /etc -type f ! -name ld.so.cache -exec sha256sum {} + | sort
}

# What the packages ask of Debian comes first, and then nothing is fetched any
# more: what they forget to ask for is missing.
install_packages() {
    local name
    apt update
    apt satisfy --no-install-recommends "$(dependencies)"
    list_files >"$work/before.list"
    mkdir "$run/packages"
    for name in "${names[@]}"; do
        cp "$work/${name}"_*.deb "$run/packages"
    done
    offline=1 apt install --no-install-recommends \
        $(cd "$root" && printf '/%s ' run/packages/*.deb)
}

# What completion offers behind the words, the last of which is being typed.
completed() {
    in_root bash -c '. /usr/share/bash-completion/completions/"$1"
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _quillondb "$1"
        echo "${COMPREPLY[*]}"' bash "$@"
}

# Each option and command of the programs stands in their manual pages.
check_pages() {
    local program section before word
    while read -r program section before; do
        for word in $(completed $program $before ''); do
            zcat "$root/usr/share/man/man$section/$program.$section.gz" |
                sed 's/\\f.//g; s/\\//g' | grep -wF -e "$word" >/dev/null ||
                fail "$word isn't in $program($section)"
        done
    done <<'TABLE'
quillondb 8
qdb 1
qdb 1 tables
qdb 1 get
qdb 1 sql
qdb 1 watch
qdb 1 wait
qdb 1 schema
qdb 1 schema create
qdb-schema 1
qdb-schema 1 create
dmctl 1
dmctl 1 cfg
TABLE
}

check_programs() {
    local version before typed offered
    version=$(in_root dpkg-query -W -f '${Version}' quillondb)
    [[ $(in_root quillondb --version) == *"$version"* ]] ||
        fail "quillondb isn't version $version"
    [[ -L $root/etc/systemd/system/multi-user.target.wants/quillondb.service ]] ||
        fail "the unit isn't enabled"
    # The words before, the one that is being typed, what is offered for it.
    while IFS=: read -r before typed offered; do
        [[ $(completed $before "$typed") == "$offered" ]] ||
            fail "completion of $before $typed"
    done <<'TABLE'
quillondb:--v:--version
qdb-schema:cr:create
qdb-schema create:--f:--force
qdb:ta:tables
qdb watch:--a:--all
qdb get --column:--:
qdb schema create:--f:--force
dmctl:au:audit
dmctl --socket x cfg:ra:raw
TABLE
}

# The values of a directive of the installed unit and its drop-ins.
unit_values() {
    cat "$root"/lib/systemd/system/quillondb.service{,.d/*.conf} |
        sed -n "s/^$1=//p"
}

# The socket's file is there a moment before anybody listens.
bus_answers() {
    in_root dbus-send --system --print-reply --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus.GetId >"$work/last.log" 2>&1
}

start_bus() {
    mkdir "$run/dbus"
    "${enter[@]}" dbus-daemon --system --nofork --nopidfile --nosyslog \
        2>"$work/bus.log" &
    bus=$!
    wait_until 'the start of the bus' bus_answers
}

is_ready() {
    kill -0 "$service" 2>/dev/null ||
        { cat "$work/service.log" >&2; fail 'the service has ended'; }
    in_root dmctl attributes 2>/dev/null | grep -qxF "$ready_key 1"
}

# As the unit would do it.
start_service() {
    local environment
    mapfile -t environment < <(unit_values Environment)
    mkdir -m "$(unit_values RuntimeDirectoryMode)" \
        "$run/$(unit_values RuntimeDirectory)"
    quietly in_root $(unit_values ExecStartPre)
    "${enter[@]}" "${environment[@]}" QDB_STANDIN_LOG=3 \
        $(unit_values ExecStart) \
        >"$work/service.log" 2>&1 &
    service=$!
    wait_until 'readiness' is_ready
}

row_has() {
    [[ $(sqlite3 -readonly -cmd '.timeout 5000' "$root$database" \
        "SELECT VariableSpeed FROM TblFanExtObj WHERE OID = $((fan))") == "$1" ]]
}

signal_has() {
    grep TblFanExtObj "$work/watch.out" | grep -q "\"VariableSpeed\": *$1\b"
}

see_change() {
    "${enter[@]}" qdb watch --json TblFanExtObj \
        >"$work/watch.out" 2>"$work/watch.log" &
    watch=$!
    wait_until 'the start of qdb watch' grep -q watching "$work/watch.log"
    ! row_has 4321 || fail 'the row has its new value already'
    quietly in_root dmctl set "$fan" VariableSpeed=4321
    wait_until 'the change of the row' row_has 4321
    wait_until 'the signal of the change' signal_has 4321
    quietly in_root dmctl audit --database "$database"
}

# A consumer that has nothing but the packages.
see_rows() {
    local rows
    rows=$(sqlite3 -readonly -cmd '.timeout 5000' "$root$database" \
        'SELECT count(*) FROM TblFanExtObj')
    quietly in_root python3 -c '
import sys
import quillondb

added = 0
for change in quillondb.Mirror(tables=["TblFanExtObj"]):
    added += change.kind == "added"
    if change.kind == "ready":
        break
sys.exit(added == 0 or added != int(sys.argv[1]))' "$rows"
}

# stop PROCESS WHAT; those of ours end with status 0.
stop() {
    local status=0
    kill -TERM "$1" || true # one that has ended has its status for wait
    wait "$1" || status=$?
    ((status == 0)) || fail "$2 ended with status $status"
}

purge() {
    apt purge "${names[@]}"
    [[ ! -e $run/quillondatabase ]] || fail 'the runtime directory is left'
    list_files >"$work/after.list"
    diff "$work/before.list" "$work/after.list" >&2 ||
        fail 'the packages left something behind'
}

try_installed() {
    say 5 'Installing the packages'
    enter_root
    install_packages
    check_programs
    check_pages
    say 6 'Running the service: readiness, a row, a signal, a stop'
    start_bus
    start_service
    see_change
    see_rows
    stop "$service" quillondb
    stop "$watch" qdb
    stop "$bus" dbus-daemon
    say 7 'Purging the packages: nothing may be left'
    purge
}
