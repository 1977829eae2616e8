# Tests of scripts/sandbox that hold for bwrap only.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

test_Files_AreReadOnlyButForTheWritableFolders() {
    local path
    for path in "$work/checkout/file" "$work/checkout/scripts/file" "$HOME/file" /etc/file \
        /var/tmp/file "$work/tests/file"; do
        run scripts/sandbox sh -c "echo >$path"
        [[ $status != 0 && ! -e $path ]] || fail "$path could be written"
    done
    ORBA_SANDBOX_WRITABLE=$HOME run scripts/sandbox sh -c 'echo >build/file'
    [[ $status != 0 && ! -e build/file ]] || fail "the build folder was writable unasked"
}

test_CheckoutUnderTmp_IsReadOnly() {
    cp -r "$work/checkout" "$TMPDIR"
    run env -C "$TMPDIR/checkout" scripts/sandbox sh -c 'echo >file'
    [[ $status != 0 && ! -e $TMPDIR/checkout/file ]] || fail "a file was written"
    rm -r "$TMPDIR/checkout"
}

test_ReadOnly_CannotBeUndone() {
    run scripts/sandbox mount -o remount,rw,bind /
    [[ $status != 0 ]] || fail "the root folder was mounted writable"
}

test_Network_IsItsOwn() {
    run scripts/sandbox cat /proc/net/dev
    expect_equal "$(tail -n +3 <<<"$output" | cut -d: -f1 | tr -d ' ')" lo "interfaces"
}

test_Processes_OutsideAreNotSeen() {
    run scripts/sandbox bash -c 'kill -0 '$$' 2>/dev/null && echo seen; [[ -e /proc/'$$' ]] && echo seen'
    expect_equal "$output" "" "the test's own process"
}

test_TemporaryFolder_IsGoneBeforeTheCommandStarts() {
    scripts/sandbox sh -c 'echo >build/ready; sleep 100' &
    wait_until '[[ -e build/ready ]]'
    expect_equal "$(ls -A "$TMPDIR")" "" "temporary files"
    kill $!
    wait $! || true
}
