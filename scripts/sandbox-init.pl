#!/usr/bin/perl
# usage: sandbox-init.pl bwrap|proot COMMAND [ARG...]
#
# The first process in scripts/sandbox. It starts the command, passes its exit status on (128+N after
# signal N), and before that ends whatever the command has left running.
#
# Under proot it also refuses the system calls that came after proot 5.1: proot does not know them,
# so paths in them would reach the machine's own files. To the C library and Node.js they look as on
# an older kernel, and they use the older calls.
use strict;
use warnings;
use Errno qw(ENOENT);
use POSIX qw(ENOSYS WNOHANG);

# Numbers of the calls, by machine; from about 400 on they are the same everywhere.
my %machines = (
    x86_64  => { audit => 0xC000003E, prctl => 157, refused => [ 332, 316, 322 ] },
    aarch64 => { audit => 0xC00000B7, prctl => 167, refused => [ 291, 276, 281 ] },
);
# statx, renameat2, execveat; then io_uring_setup, clone3, openat2, faccessat2, fchmodat2
my @refused_everywhere = ( 425, 435, 437, 439, 452 );

my $PR_SET_SECCOMP         = 22;
my $PR_SET_CHILD_SUBREAPER = 36;
my $PR_SET_NO_NEW_PRIVS    = 38;
my $SECCOMP_MODE_FILTER    = 2;

my $machine = $machines{ ( POSIX::uname() )[4] }
    or die "sandbox-init.pl: not prepared for this kind of machine\n";

sub process_control {
    my ( $option, @arguments ) = @_;
    push @arguments, 0 while @arguments < 4;
    syscall( $machine->{prctl}, $option, @arguments ) == 0 or die "sandbox-init.pl: prctl: $!\n";
}

sub refuse_newer_system_calls {
    my ( $load, $jump_if_equal, $return ) = ( 0x20, 0x15, 0x06 );
    my ( $allow, $refuse ) = ( 0x7FFF0000, 0x00050000 | ENOSYS );
    my @filter = (
        [ $load, 0, 0, 4 ], [ $jump_if_equal, 1, 0, $machine->{audit} ], [ $return, 0, 0, $allow ],
        [ $load, 0, 0, 0 ]
    );
    for my $call ( @{ $machine->{refused} }, @refused_everywhere ) {
        push @filter, [ $jump_if_equal, 0, 1, $call ], [ $return, 0, 0, $refuse ];
    }
    push @filter, [ $return, 0, 0, $allow ];
    my $code = join '', map { pack 'S C C L', @$_ } @filter;
    my $program = pack 'S x![P] P', scalar @filter, $code;
    process_control( $PR_SET_NO_NEW_PRIVS, 1 );
    process_control( $PR_SET_SECCOMP, $SECCOMP_MODE_FILTER, $program );
}

sub start {
    my @command = @_;
    my $child = fork() // die "sandbox-init.pl: fork: $!\n";
    return $child if $child;
    $SIG{$_} = 'DEFAULT' for qw(HUP INT QUIT TERM);
    { no warnings 'exec'; exec { $command[0] } @command; }
    print STDERR "scripts/sandbox: $command[0]: $!\n";
    POSIX::_exit( $! == ENOENT ? 127 : 126 );
}

sub wait_for {
    my ($child) = @_;
    my $ended;
    do { $ended = waitpid -1, 0 } until $ended == $child;
    return $? & 127 ? 128 + ( $? & 127 ) : $? >> 8;
}

# Whatever loses its parent becomes a child of this process, so nothing can hide from it.
sub end_what_is_left {
    while ( ( my $ended = waitpid -1, WNOHANG ) >= 0 ) {
        next if $ended;
        open my $list, '<', "/proc/$$/task/$$/children" or die "sandbox-init.pl: children: $!\n";
        kill 'KILL', split ' ', <$list> // '';
        select undef, undef, undef, 0.002;
    }
}

my ( $kind, @command ) = @ARGV;
delete $ENV{PROOT_TMP_DIR};
refuse_newer_system_calls() if $kind eq 'proot';
process_control( $PR_SET_CHILD_SUBREAPER, 1 );
my $status = wait_for( start(@command) );
end_what_is_left();
exit $status;
