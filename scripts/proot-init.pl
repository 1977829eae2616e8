#!/usr/bin/perl
# usage: proot-init.pl COMMAND [ARG...]
#
# The first process of scripts/sandbox under proot. It adds what proot lacks:
# - proot 5.1 does not know the system calls that came after it, so paths in them would reach the
#   machine's own files. They are refused as "not implemented" here; the C library and Node.js then
#   use the older calls, as on an old kernel.
# - proot waits for processes that the command leaves behind, and does not tell which signal ended
#   the command. Here they are ended, and a death by signal N becomes the exit status 128+N.
use strict;
use warnings;
use Errno qw(ENOENT);
use POSIX qw(ENOSYS WNOHANG);

# Numbers of the calls, by machine. From the fourth on they are the same everywhere.
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
    or die "proot-init.pl: not prepared for this kind of machine\n";

sub process_control {
    my ( $option, @arguments ) = @_;
    push @arguments, 0 while @arguments < 4;
    syscall( $machine->{prctl}, $option, @arguments ) == 0 or die "proot-init.pl: prctl: $!\n";
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
    my $child = fork() // die "proot-init.pl: fork: $!\n";
    return $child if $child;
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
        open my $list, '<', "/proc/$$/task/$$/children" or die "proot-init.pl: children: $!\n";
        kill 'KILL', split ' ', <$list> // '';
        select undef, undef, undef, 0.002;
    }
}

delete $ENV{PROOT_TMP_DIR};
refuse_newer_system_calls();
process_control( $PR_SET_CHILD_SUBREAPER, 1 );
my $child = start(@ARGV);
$SIG{$_} = 'IGNORE' for qw(HUP INT QUIT TERM);
my $status = wait_for($child);
end_what_is_left();
exit $status;
