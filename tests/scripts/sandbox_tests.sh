# Tests of scripts/sandbox; ORBA_SANDBOX says which kind is to be tested.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

bundle=/etc/ssl/certs/ca-certificates.crt

sandbox() {
    scripts/sandbox "$@"
}

test_KindAndUser_AreTheOnesAskedFor() {
    expect_equal "$(sandbox sh -c 'echo $ORBA_SANDBOX_KIND; id -u')" "$ORBA_SANDBOX"$'\n'"$(id -u)" "kind, user"
}

test_Bundle_HoldsOnlyACaMadeForThisRunAndTwoDays() {
    run sandbox sh -c 'cat '$bundle'; cmp '$bundle' $ORBA_CA_CERT; openssl x509 -in $ORBA_CA_CERT \
        -noout -subject -nameopt RFC2253 -checkend 172700; openssl x509 -in $ORBA_CA_CERT -noout -checkend 172801'
    expect_equal "$(grep -c BEGIN <<<"$output")" 1 "entries in the bundle"
    expect_equal "$(tail -n 3 <<<"$output")" "subject=CN=Orba sandbox CA
Certificate will not expire
Certificate will expire" "CA"
    [[ $(sandbox cat "$bundle") != "${output%%subject*}"* ]] || fail "two runs have the same CA"
}

test_Certificates_AreTrustedForTheLoopbackNamesOnly() {
    echo nonsense >"$work/openssl.cnf"
    OPENSSL_CONF=$work/openssl.cnf run sandbox sh -c 'unset OPENSSL_CONF
        for name in localhost account.localhost elsewhere.test; do
        openssl verify -CAfile '$bundle' -verify_hostname $name $ORBA_TLS_CERT >/dev/null 2>&1; echo $?; done'
    expect_equal "$output" $'0\n0\n2' "status for each name"
}

test_Hosts_AreItsOwn() {
    run sandbox sh -c 'cat /etc/hosts; getent hosts fleet-lens.localhost'
    expect_contains "$output" $'127.0.0.1 localhost\n::1 localhost\n' "hosts"
    expect_contains "$output" $'127.0.0.1 fleet-lens.localhost\n::1 fleet-lens.localhost\n::1 ' "hosts"
    expect_equal "$(wc -l <<<"$output")" 9 "number of lines"
}

# proot does not know the newer system calls by itself, which these programs use.
test_Tmp_IsPrivateAndWorksForAllPrograms() {
    local name=/tmp/orba-leak-$$
    run sandbox bash -c 'ls -A /tmp; ls /tmp/orba-ca | tr "\n" " "; echo ${TMPDIR-unset}
        cd /tmp && echo text >a && [[ -r a && -w a ]] && mv -n a b && ls -l b >'$name' && stat -c %s b &&
        cp -a b c && find . -name c && mkdir -p '$name.d'/e && rm -r '$name.d'/e &&
        echo "console.log(require(\"fs\").statSync(\"/tmp/b\").size)" >s.js && node /tmp/s.js'
    expect_equal "$output/$errors" $'orba-ca\nca.key ca.pem tls.key tls.pem unset\n5\n./c\n5/' "output"
    [[ ! -e $name && ! -e $name.d ]] || fail "a file got out"
}

test_Devices_AreThereAndItsOwn() {
    local shared=/dev/shm/orba-test-$$
    run sandbox bash -c "echo x >/dev/null; head -c 4 /dev/zero | wc -c; head -c 4 /dev/urandom | wc -c
        echo shared >$shared; cat $shared; cat < <(echo through-fd); readlink /dev/log; echo e >/dev/fd/2"
    expect_equal "$output/$errors" $'4\n4\nshared\nthrough-fd\n/tmp/devlog.sock/e' "output"
    [[ ! -e $shared ]] || fail "/dev/shm is the machine's"
}

test_Variables_LeadNowhereElse() {
    local name variables=()
    for name in {http,https,all,no}_proxy {HTTP,HTTPS,ALL,NO}_PROXY SSL_CERT_{FILE,DIR} CURL_CA_BUNDLE; do
        variables+=("$name=elsewhere")
    done
    run env "${variables[@]}" OTHER=kept scripts/sandbox env
    [[ $output != *elsewhere* && $output != *PROOT* ]] || fail "kept: $output"
    expect_contains "$output" "OTHER=kept" "other variables"
}

test_Command_GetsItsArgumentsAndStreams() {
    run sandbox sh -c 'printf "[%s]" "$@"; cat; echo to-errors >&2' sh 'a b' '' '$HOME' -- --help <<<input
    expect_equal "$output/$errors" '[a b][][$HOME][--][--help]input/to-errors' "arguments and streams"
}

test_Status_IsPassedOn() {
    local wanted
    for wanted in 'exit 0:0' 'exit 255:255' 'ulimit -c 0; kill -KILL $$:137'; do
        run sandbox bash -c "${wanted%:*}"
        expect_equal "$status/$errors" "${wanted#*:}/" "status after ${wanted%:*}"
    done
    PATH=/usr/bin:/bin run sandbox no-such-command
    expect_refusal 127 no-such-command
    run sandbox /etc/passwd
    expect_refusal 126 /etc/passwd
}

test_CurrentDirectory_IsKept() {
    local folder
    mkdir "$TMPDIR/somewhere" "$work/gone"
    for folder in "$work/home" / "$TMPDIR/somewhere"; do
        expect_equal "$(cd "$folder" && "$work/checkout/scripts/sandbox" pwd)" "$folder" "directory"
    done
    rmdir "$TMPDIR/somewhere"
    run env -C "$work/gone" bash -c 'rmdir ../gone; exec "$0" true' "$work/checkout/scripts/sandbox"
    expect_equal "$status" 125 "status"
    expect_contains "$errors" "the current directory does not exist" "complaint"
}

test_Checkout_UnderTmp_IsSeenAndCanBuild() {
    cp -r "$work/checkout" "$TMPDIR"
    run env -C "$TMPDIR/checkout" scripts/sandbox sh -c 'ls scripts/test; echo made >build/file; ls -A /tmp'
    expect_equal "$output" $'scripts/test\norba-ca\n'"$(basename "$TMPDIR")" "output"
    expect_equal "$(<"$TMPDIR/checkout/build/file")" made "file in the build folder"
    rm -r "$TMPDIR/checkout"
}

test_WritableFolders_AreTheNamedOnes() {
    mkdir "$work/one" "$TMPDIR/two"
    ORBA_SANDBOX_WRITABLE=$work/one:$TMPDIR/two sandbox \
        sh -c "echo 1 >$work/one/file && echo 2 >$TMPDIR/two/file"
    expect_equal "$(cat "$work/one/file" "$TMPDIR/two/file")" $'1\n2' "files"
    rm -r "$TMPDIR/two"
    ORBA_SANDBOX_WRITABLE=$work/nowhere run sandbox true
    expect_refusal 125 "$work/nowhere"
    ORBA_SANDBOX_WRITABLE=/tmp run sandbox true
    expect_refusal 125 /tmp
}

test_Nested_RunsInTheSameEnvironment() {
    run sandbox bash -c 'touch /tmp/mine; scripts/sandbox ls /tmp; scripts/sandbox sh -c "exit 9"'
    expect_equal "$status/$output" $'9/mine\norba-ca' "status and /tmp"
}

test_LeftProcesses_AreEnded() {
    SECONDS=0
    run sandbox sh -c 'setsid sleep 100 & (setsid sleep 100 &) ; exit 3'
    ((status == 3 && SECONDS < 50)) || fail "status $status; or it waited for them"
}

# Inside are processes that ignore the signals, and one that writes to /tmp all the time.
test_Signals_EndEverything() {
    local signal
    ulimit -c 0
    for signal in TERM:143 INT:130 HUP:129 KILL:137; do
        env --default-signal=INT scripts/sandbox bash -c 'trap "" HUP INT QUIT TERM; sleep 100 &
            setsid sleep 100 & (for ((i = 0; ; i++)); do echo >/tmp/$i; done) &
            echo >build/ready; wait' &
        wait_until '[[ -e build/ready ]]'
        [[ $(processes_left) == *"sleep 100"*"sleep 100"* ]] || fail "the processes are not seen"
        [[ $ORBA_SANDBOX == proot || -z $(ls -A "$TMPDIR") ]] || fail "temporary files during the run"
        status=0
        kill -s "${signal%:*}" $!
        wait $! 2>/dev/null || status=$?
        expect_equal "$status" "${signal#*:}" "status after ${signal%:*}"
        [[ $signal == KILL* ]] || expect_equal "$(processes_left)" "" "processes after ${signal%:*}"
        wait_until '[[ -z $(processes_left) ]]' || fail "left: $(processes_left)"
        # proot needs files on the machine, and after SIGKILL nobody is left to remove them.
        [[ $signal/$ORBA_SANDBOX != KILL*/proot ]] || rm -r "$TMPDIR"/orba-sandbox.* build/proot.*
        expect_equal "$(ls -A "$TMPDIR")" "" "temporary files after ${signal%:*}"
        rm build/ready
    done
}

test_StarterEnds_TheCommandGoesOn() {
    (scripts/sandbox sh -c 'until [ -e build/go ]; do sleep 0.02; done; echo went-on >build/done' &)
    touch build/go
    wait_until '[[ -s build/done && -z $(processes_left) ]]' || fail "the command ended"
}

# await_line TEXT: reads from the terminal until a line is just this text.
await_line() {
    local line
    while read -r -t 20 line <&"${terminal[0]}"; do
        if [[ ${line//$'\r'/} == "$1" ]]; then return; fi
    done
    fail "\"$1\" did not appear on the terminal"
}

test_InteractiveShell_HasJobControl() {
    coproc terminal { TERM=dumb exec script -qec "scripts/sandbox bash --norc -i" /dev/null; }
    local input=${terminal[1]} pid=$!
    # Prompts on lines of their own, with the last status. What is typed while the terminal deals
    # with a Ctrl-C is lost, so each step waits for the one before.
    printf '%s\n' "PS1='\$?.\n'" >&"$input"
    await_line 0.
    # Printed by the command itself, which has the terminal by then.
    echo "[[ \$- == *m* ]] && sh -c 'echo rea\"\"dy; exec sleep 100'" >&"$input"
    await_line ready
    printf '\003' >&"$input"
    await_line 130.
    echo "exit 5" >&"$input"
    status=0
    wait "$pid" || status=$?
    expect_equal "$status" 5 "status"
}

test_Machine_IsUnchanged() {
    local look="cksum $bundle /etc/hosts; ls -l /etc/hosts $bundle; ls /dev" before
    before=$(eval "$look")
    sandbox sh -c "echo >>/etc/hosts; echo >>$bundle; echo >/dev/file; echo >build/ready
        until [ -e build/go ]; do sleep 0.02; done" 2>/dev/null &
    wait_until '[[ -e build/ready ]]' || fail "the sandbox did not start"
    expect_equal "$(eval "$look")" "$before" "bundle, hosts and devices during the run"
    touch build/go
    wait $!
    expect_equal "$(eval "$look")" "$before" "bundle, hosts and devices afterwards"
}

test_bwrap_Files_AreReadOnlyButForTheWritableFolders() {
    local paths=("$work/checkout/file" "$HOME/file" /etc/file /var/tmp/file "$TMPDIR/checkout/file")
    cp -r "$work/checkout" "$TMPDIR"
    run env -C "$TMPDIR/checkout" scripts/sandbox \
        sh -c 'for path; do ! echo >$path || echo "$path"; done 2>/dev/null' sh "${paths[@]}"
    expect_equal "$status/$output" 0/ "what could be written"
    rm -r "$TMPDIR/checkout"
    ORBA_SANDBOX_WRITABLE=$HOME run scripts/sandbox sh -c 'echo >build/file'
    [[ $status != 0 && ! -e build/file ]] || fail "the build folder was writable unasked"
    run scripts/sandbox mount -o remount,rw,bind /
    [[ $status != 0 ]] || fail "the root folder was mounted writable"
}

test_bwrap_NetworkAndProcesses_AreItsOwn() {
    run scripts/sandbox bash -c 'tail -n +3 /proc/net/dev | cut -d: -f1; kill -0 '$$' 2>&1 | wc -l'
    expect_equal "${output// /}" $'lo\n1' "interfaces, and the test's own process"
}

# make_failing NAME: a command that says that it is refused.
make_failing() {
    make_command "$work/failing" "$1" <<<"echo '$1: refused here' >&2; exit 1"
    PATH=$work/failing:$PATH
}

test_bwrap_IsTakenFirstAndThenProot() {
    unset ORBA_SANDBOX
    expect_equal "$(scripts/sandbox sh -c 'echo $ORBA_SANDBOX_KIND')" bwrap "kind"
    make_failing bwrap
    expect_equal "$(scripts/sandbox sh -c 'echo $ORBA_SANDBOX_KIND')" proot "kind when bwrap fails"
}

test_KindThatFails_IsSaidInOneLine() {
    make_failing "$ORBA_SANDBOX"
    run scripts/sandbox echo ran
    expect_refusal 125 "$ORBA_SANDBOX: refused here"
    unset ORBA_SANDBOX
    make_failing bwrap
    make_failing proot
    run scripts/sandbox echo ran
    expect_refusal 125 "bwrap: refused here" "proot: refused here" \
        "install bubblewrap and allow user namespaces" "install proot and allow ptrace"
    ORBA_SANDBOX=other run scripts/sandbox echo ran
    expect_refusal 125 '"other"'
    PATH=$(bare_path) run scripts/sandbox echo ran
    expect_refusal 125 "bwrap is not installed; proot is not installed"
}

test_Sandbox_SaysWhatIsMissing() {
    run scripts/sandbox
    expect_refusal 125 "usage: scripts/sandbox COMMAND"
    rm -r build
    make_failing cc
    run scripts/sandbox echo ran
    expect_equal "$status/$output" 125/ "status and output"
    expect_contains "$errors" "run scripts/setup" "complaint"
}

# The program that begins a sandbox goes to the user's cache when the checkout is another user's.
test_ordinary_Checkout_ReadOnly_IsUsedAllTheSame() {
    rm -f build/sandbox-init
    chmod a-w build
    run scripts/sandbox echo ran
    chmod u+w build
    expect_equal "$output" ran "output"
    [[ -x ~/.cache/orba/sandbox-init ]] || fail "nothing in the cache"
}

test_Sandboxes_AtTheSameTime_DoNotDisturbEachOther() {
    local number
    rm -f build/sandbox-init
    for number in 1 2; do scripts/sandbox touch "build/$number" & done
    wait
    expect_equal "$(echo build/*)" "build/1 build/2 build/sandbox-init" "what they left"
}
