# Tests of scripts/sandbox that hold for both kinds; ORBA_SANDBOX says which one is to be tested.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

sandbox() {
    scripts/sandbox "$@"
}

bundle=/etc/ssl/certs/ca-certificates.crt

test_Kind_IsTheOneAskedFor() {
    expect_equal "$(sandbox sh -c 'echo $ORBA_SANDBOX_KIND')" "$ORBA_SANDBOX" "ORBA_SANDBOX_KIND"
}

test_User_IsKept() {
    expect_equal "$(sandbox id -u)" "$(id -u)" "user id"
}

test_Bundle_HoldsOnlyTheFreshCa() {
    expect_equal "$(sandbox grep -c BEGIN "$bundle")" 1 "entries in the bundle"
    sandbox sh -c "cmp $bundle \$ORBA_CA_CERT"
    run sandbox sh -c "openssl x509 -in $bundle -noout -subject -ext basicConstraints"
    expect_contains "$output" "Orba sandbox CA" "subject"
    expect_contains "$output" "CA:TRUE" "constraints"
}

test_Ca_IsMadeForEachRun() {
    local first second
    first=$(sandbox cat "$bundle")
    second=$(sandbox cat "$bundle")
    [[ $first != "$second" ]] || fail "two runs have the same CA"
}

test_Ca_IsAnEllipticCurveForTwoDays() {
    run sandbox sh -c 'openssl x509 -in $ORBA_CA_CERT -noout -text -checkend 172700'
    expect_contains "$output" "prime256v1" "key"
    expect_contains "$output" "Certificate will not expire" "in just under two days"
    run sandbox sh -c 'openssl x509 -in $ORBA_CA_CERT -noout -checkend 172801'
    expect_equal "$output" "Certificate will expire" "in just over two days"
}

test_Ca_CanSign() {
    sandbox sh -c 'cd /tmp && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 \
        -nodes -subj /CN=x -CA $ORBA_CA_CERT -CAkey $ORBA_CA_KEY -keyout x.key -out x.pem &&
        openssl verify -CAfile '"$bundle"' x.pem' &>/dev/null
}

test_ServerCertificate_NamesTheLoopback() {
    local name
    run sandbox sh -c 'openssl x509 -in $ORBA_TLS_CERT -noout -ext subjectAltName'
    for name in DNS:localhost DNS:auth.localhost DNS:account.localhost DNS:fleet-lens.localhost \
        "IP Address:127.0.0.1" "IP Address:0:0:0:0:0:0:0:1"; do
        expect_contains "$output" "$name" "names in the certificate"
    done
}

test_OpensslConfigurationOfTheCaller_IsNotUsedForTheCa() {
    echo 'nonsense' >"$work/openssl.cnf"
    OPENSSL_CONF=$work/openssl.cnf sandbox true
}

test_Https_IsTrustedThroughTheBundle() {
    local port=0
    [[ $ORBA_SANDBOX != bwrap ]] || port=443
    run sandbox node "$work/tests/https_round_trip.mjs" "$port"
    expect_equal "$errors" "" "complaints"
    expect_equal "$output" $'node: 200 hello\nopenssl: 0' "round trip"
}

test_Hosts_AreItsOwn() {
    local name
    run sandbox cat /etc/hosts
    for name in localhost auth.localhost account.localhost fleet-lens.localhost; do
        expect_contains $'\n'"$output"$'\n' $'\n'"127.0.0.1 $name"$'\n' "IPv4"
        expect_contains $'\n'"$output"$'\n' $'\n'"::1 $name"$'\n' "IPv6"
    done
    expect_equal "$(wc -l <<<"$output")" 8 "number of lines"
    expect_contains "$(sandbox getent hosts fleet-lens.localhost)" "::1" "resolved"
}

test_Tmp_IsEmptyButForTheCa() {
    expect_equal "$(sandbox ls -A /tmp)" orba-ca "what is in /tmp"
    expect_equal "$(sandbox ls /tmp/orba-ca | tr '\n' ' ')" "ca.key ca.pem tls.key tls.pem " "files"
    expect_equal "$(sandbox sh -c 'echo ${TMPDIR-unset}')" unset "TMPDIR"
}

test_Tmp_LeaksNothing() {
    local name=orba-leak-$$
    sandbox sh -c "echo secret >/tmp/$name && mkdir /tmp/$name.d && mktemp" >/dev/null
    [[ ! -e /tmp/$name && ! -e /tmp/$name.d ]] || fail "a file got out"
}

# proot does not know the newer system calls by itself, which these programs use.
test_Tmp_WorksForAllPrograms() {
    run sandbox bash -c 'cd /tmp && echo text >a && [[ -r a && -w a ]] && mv -n a b && ls -l b &&
        stat -c %s b && cp -a b c && find . -name c && mkdir -p d/e && rm -r d &&
        echo "console.log(require(\"fs\").statSync(\"/tmp/b\").size)" >s.js && node /tmp/s.js'
    expect_equal "$errors" "" "complaints"
    expect_contains "$output" $'\n5\n./c\n5' "output"
}

test_Syslog_ReachesASocketInTmp() {
    run sandbox perl "$work/tests/receive_syslog.pl" logger -t some-service "a line"
    expect_equal "$status/$errors" "0/" "status and complaints"
    expect_contains "$output" "some-service: a line" "received"
}

test_Syslog_WithoutReceiver_LeadsNowhere() {
    sandbox sh -c 'test -L /dev/log && test ! -e /dev/log'
}

test_Devices_AreThere() {
    local shared=/dev/shm/orba-test-$$
    run sandbox bash -c "echo x >/dev/null; head -c 4 /dev/zero | wc -c; head -c 4 /dev/urandom |
        wc -c; echo shared >$shared; cat $shared; cat < <(echo through-fd); echo e >/dev/fd/2"
    expect_equal "$output" $'4\n4\nshared\nthrough-fd' "output"
    expect_equal "$errors" e "standard error"
    if [[ -e $shared ]]; then
        rm "$shared"
        fail "/dev/shm is the machine's"
    fi
}

test_Variables_LeadNowhereElse() {
    local name variables=()
    for name in {http,https,all,no}_proxy {HTTP,HTTPS,ALL,NO}_PROXY SSL_CERT_{FILE,DIR} \
        CURL_CA_BUNDLE; do
        variables+=("$name=elsewhere")
    done
    run env "${variables[@]}" OTHER=kept scripts/sandbox env
    if grep elsewhere <<<"$output"; then fail "a variable was kept"; fi
    expect_contains "$output" "OTHER=kept" "other variables"
    if grep ^PROOT <<<"$output"; then fail "proot's own variables are seen"; fi
}

test_Command_GetsItsArgumentsAsTheyAre() {
    run sandbox printf '[%s]' 'a b' '' "it's" '$HOME' '*' -- --help
    expect_equal "$output" '[a b][][it'\''s][$HOME][*][--][--help]' "arguments"
}

test_Streams_ArePassedOn() {
    run sandbox sh -c 'cat; echo to-errors >&2' <<<"from input"
    expect_equal "$output" "from input" "standard output"
    expect_equal "$errors" "to-errors" "standard error"
}

test_Status_IsPassedOn() {
    local wanted
    for wanted in 0 1 7 125 255; do
        run sandbox sh -c "exit $wanted"
        expect_equal "$status/$errors" "$wanted/" "status"
    done
}

test_Status_TellsTheSignal() {
    local signal
    for signal in TERM:143 KILL:137 INT:130; do
        run sandbox bash -c "ulimit -c 0; kill -${signal%:*} \$\$"
        expect_equal "$status/$errors" "${signal#*:}/" "status after ${signal%:*}"
    done
}

test_Command_Missing_Gives127() {
    PATH=/usr/bin:/bin run sandbox no-such-command
    expect_equal "$status" 127 "status"
    expect_one_line "$errors" "complaint"
    expect_contains "$errors" "no-such-command" "complaint"
}

test_Command_NotExecutable_Gives126() {
    run sandbox /etc/passwd
    expect_equal "$status" 126 "status"
    expect_one_line "$errors" "complaint"
}

test_CurrentDirectory_IsKept() {
    local folder
    for folder in "$work/checkout" "$work/home" / /usr/share; do
        expect_equal "$(cd "$folder" && "$work/checkout/scripts/sandbox" pwd)" "$folder" "directory"
    done
}

test_CurrentDirectory_UnderTmp_IsKept() {
    mkdir "$TMPDIR/somewhere"
    echo content >"$TMPDIR/somewhere/file"
    run env -C "$TMPDIR/somewhere" "$work/checkout/scripts/sandbox" sh -c 'pwd; cat file'
    expect_equal "$output" "$TMPDIR/somewhere"$'\n'content "directory and file"
    rm -r "$TMPDIR/somewhere"
}

test_CurrentDirectory_Gone_IsSaidInOneLine() {
    mkdir "$work/gone"
    run env -C "$work/gone" bash -c 'rmdir ../gone; exec "$0" true' "$work/checkout/scripts/sandbox"
    expect_equal "$status" 125 "status"
    expect_contains "$errors" "the current directory does not exist" "complaint"
}

test_Checkout_UnderTmp_IsSeenAndCanBuild() {
    cp -r "$work/checkout" "$TMPDIR"
    cd "$TMPDIR/checkout"
    run scripts/sandbox sh -c 'ls scripts/sandbox; echo made >build/file; ls -A /tmp'
    expect_equal "$output" $'scripts/sandbox\n'"orba-ca"$'\n'"$(basename "$TMPDIR")" "output"
    expect_equal "$(<build/file)" made "file in the build folder"
    cd /
    rm -r "$TMPDIR/checkout"
}

test_BuildFolder_IsWritable() {
    sandbox sh -c 'echo made >build/file'
    expect_equal "$(<build/file)" made "file"
}

test_NamedFolders_AreWritable() {
    mkdir "$work/one" "$TMPDIR/two"
    ORBA_SANDBOX_WRITABLE=$work/one:$TMPDIR/two sandbox \
        sh -c "echo 1 >$work/one/file && echo 2 >$TMPDIR/two/file"
    expect_equal "$(cat "$work/one/file" "$TMPDIR/two/file")" $'1\n2' "files"
    rm -r "$TMPDIR/two"
}

test_NamedFolder_Missing_IsSaidInOneLine() {
    ORBA_SANDBOX_WRITABLE=$work/nowhere run sandbox true
    expect_equal "$status" 125 "status"
    expect_one_line "$errors" "complaint"
    expect_contains "$errors" "$work/nowhere" "complaint"
}

test_NamedFolder_Tmp_IsRefused() {
    ORBA_SANDBOX_WRITABLE=/tmp run sandbox true
    expect_equal "$status" 125 "status"
    expect_one_line "$errors" "complaint"
}

test_Nested_RunsInTheSameEnvironment() {
    run sandbox bash -c 'touch /tmp/mine; scripts/sandbox ls /tmp; scripts/sandbox sh -c "exit 9"'
    expect_equal "$status" 9 "status"
    expect_equal "$output" $'mine\norba-ca' "/tmp"
}

test_LeftProcesses_AreEnded() {
    SECONDS=0
    run sandbox sh -c 'sleep 100 & setsid sleep 100 & (setsid sleep 100 &) ; exit 3'
    expect_equal "$status" 3 "status"
    ((SECONDS < 50)) || fail "it waited for them"
}

# start_and_signal SIGNAL: sets $status. Inside are processes that ignore the signal, and one that
# goes on writing to /tmp.
start_and_signal() {
    env --default-signal=INT,QUIT scripts/sandbox bash -c 'trap "" HUP INT QUIT TERM; sleep 100 &
        setsid sleep 100 & (for ((i = 0; ; i++)); do echo >/tmp/$i; done) &
        echo >build/ready; wait' &
    wait_until '[[ -e build/ready ]]'
    [[ $(processes_left) == *"sleep 100"*"sleep 100"* ]] || fail "the processes are not seen"
    status=0
    kill -s "$1" $!
    wait $! 2>/dev/null || status=$?
}

test_Signals_EndEverything() {
    local signal
    ulimit -c 0
    for signal in TERM:143 INT:130 HUP:129 QUIT:131; do
        start_and_signal "${signal%:*}"
        expect_equal "$status" "${signal#*:}" "status after ${signal%:*}"
        expect_equal "$(processes_left)" "" "processes after ${signal%:*}"
        expect_equal "$(ls -A "$TMPDIR")" "" "temporary files after ${signal%:*}"
        rm build/ready
    done
}

test_Kill_EndsEverything() {
    start_and_signal KILL
    expect_equal "$status" 137 "status"
    wait_until '[[ -z $(processes_left) ]]' || fail "left: $(processes_left)"
    # proot needs files on the machine, and nobody is left to remove them.
    if [[ $ORBA_SANDBOX == proot ]]; then rm -r "$TMPDIR"/orba-sandbox.*; fi
}

test_SignalsIgnoredInside_AreTheCommandsOwn() {
    run sandbox bash -c 'trap "" TERM; kill -TERM $$; trap - TERM; (kill -HUP $BASHPID); echo $?'
    expect_equal "$output" 129 "status of a process that a signal ends"
}

test_StarterEnds_TheCommandGoesOn() {
    mkfifo build/go
    (scripts/sandbox sh -c 'read -r line <build/go; echo "$line" >build/done' &)
    echo went-on >build/go
    wait_until '[[ -s build/done ]]' || fail "the command ended"
    expect_equal "$(<build/done)" went-on "what it wrote"
    wait_until '[[ -z $(processes_left) ]]'
}

# await_line TEXT: reads from the terminal until a line is just this text.
await_line() {
    local line
    while read -r -t 10 line <&"${terminal[0]}"; do
        if [[ ${line//$'\r'/} == "$1" ]]; then return; fi
    done
    fail "\"$1\" did not appear on the terminal"
}

test_ControlC_EndsEverything() {
    coproc terminal { exec script -qec "scripts/sandbox sh -c 'echo ready; sleep 100; echo on'" /dev/null; }
    local input=${terminal[1]} pid=$!
    await_line ready
    printf '\003' >&"$input"
    status=0
    wait "$pid" || status=$?
    expect_equal "$status" 130 "status"
}

test_InteractiveShell_HasJobControl() {
    coproc terminal { TERM=dumb exec script -qec "scripts/sandbox bash --norc -i" /dev/null; }
    local input=${terminal[1]} pid=$!
    # Prompts on lines of their own, with the last status. What is typed while the terminal deals
    # with a Ctrl-C is lost, so each step waits for the one before.
    printf '%s\n' "PS1='\$?.\n'" >&"$input"
    await_line 0.
    echo "[[ \$- == *m* ]] && echo job''-control" >&"$input"
    await_line job-control
    # Said by the command itself, which has the terminal by then.
    echo "sh -c 'echo rea\"\"dy; exec sleep 100'" >&"$input"
    await_line ready
    printf '\003' >&"$input"
    await_line 130.
    echo "exit 5" >&"$input"
    status=0
    wait "$pid" || status=$?
    expect_equal "$status" 5 "status"
}

test_Machine_IsUnchanged() {
    local before during
    mkfifo build/go
    before=$(cksum "$bundle" /etc/hosts && ls -l /etc/hosts "$bundle" && ls /dev)
    sandbox sh -c 'echo >build/ready; read -r line <build/go' &
    wait_until '[[ -e build/ready ]]'
    during=$(cksum "$bundle" /etc/hosts && ls -l /etc/hosts "$bundle" && ls /dev)
    echo >build/go
    wait $!
    expect_equal "$during" "$before" "bundle, hosts and devices during the run"
}
