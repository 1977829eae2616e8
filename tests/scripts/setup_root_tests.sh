# Tests of how scripts/setup installs Debian packages as root, with an apt-get that only takes notes.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

readonly install_call="-y -o DPkg::Lock::Timeout=120 install --no-install-recommends"

# without_packages NAME...: dpkg-query does not know them; apt-get notes its arguments.
without_packages() {
    local real pattern
    real=$(command -v dpkg-query)
    pattern=$(printf ' %s$|' "$@")
    make_command "$work/bin" dpkg-query <<<"$real \"\$@\" | grep -vE '${pattern%|}'"
    make_command "$work/bin" apt-get \
        <<<"echo \"\$DEBIAN_FRONTEND \$*\" >>$work/apt-calls; echo unpacking"
    PATH=$work/bin:$PATH
}

test_PackagesMissing_JustTheseAreInstalled() {
    without_packages proot libgmock-dev
    run scripts/setup
    expect_equal "$status/$output" 0/ "status and output"
    expect_equal "$errors" "scripts/setup: installing Debian packages: proot libgmock-dev" "said"
    expect_equal "$(tail -n 1 "$work/apt-calls")" \
        "noninteractive $install_call proot libgmock-dev" "apt-get"
}

test_NodeMissing_DebiansIsInstalled() {
    without_packages nothing
    local path
    path=$(path_without node npm)
    # Installing is what makes the command appear.
    make_command "$path" apt-get <<<"echo \"\$*\" >>$work/apt-calls; ln -sf $(command -v node) $path/node"
    rm "$path/dpkg-query"
    cp "$work/bin/dpkg-query" "$path"
    PATH=$path run scripts/setup
    expect_equal "$status" 0 "status"
    expect_equal "$(tail -n 1 "$work/apt-calls")" "$install_call nodejs npm" "apt-get"
}

test_NodeFromElsewhere_IsKept() {
    without_packages nodejs npm
    run scripts/setup
    expect_equal "$status/$errors" 0/ "status and complaints"
    [[ ! -e $work/apt-calls ]] || fail "apt-get was called: $(<"$work/apt-calls")"
}

test_ListsTooOld_AreFetchedAndTheInstallationRepeated() {
    without_packages proot
    make_command "$work/bin" apt-get <<END
echo "\$4" >>$work/apt-calls
case \$4 in update) touch $work/updated ;; *) [ -e $work/updated ] ;; esac
END
    run scripts/setup
    expect_equal "$status" 0 "status"
    expect_equal "$(tail -n 2 "$work/apt-calls")" $'update\ninstall' "last calls of apt-get"
}

test_InstallationFails_ItsOutputAndTheCommandAreShown() {
    without_packages proot
    make_command "$work/bin" apt-get <<<"echo 'E: no such host'; exit 100"
    run scripts/setup
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" "E: no such host" "apt-get's output"
    expect_contains "$errors" \
        "as root, type: apt-get install --no-install-recommends proot" "complaint"
}
