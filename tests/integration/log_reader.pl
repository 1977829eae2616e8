#!/usr/bin/perl
# usage: log_reader.pl SOCKET
#
# Takes what programs send to syslog at the datagram socket. Says "ready" when the socket is there;
# then, for each byte of its input, prints the messages that have come since, one a line in
# hexadecimal digits, and ".". Ends with its input. Messages are taken at once, since few fit into
# the socket's queue and a program that finds it full has to wait.
use strict;
use warnings;
use IO::Select;
use IO::Socket::UNIX;
use Socket qw(MSG_DONTWAIT SOCK_DGRAM);

my ($path) = @ARGV;
my $log = IO::Socket::UNIX->new( Local => $path, Type => SOCK_DGRAM )
    or die "log_reader.pl: $path: $!\n";
my @messages;

sub take_messages {
    while ( defined $log->recv( my $message, 1 << 20, MSG_DONTWAIT ) ) {
        push @messages, unpack 'H*', $message;
    }
}

$| = 1;
print "ready\n";
my $select = IO::Select->new( $log, \*STDIN );
while ( my @readable = $select->can_read ) {
    take_messages();
    next unless grep { $_ == \*STDIN } @readable;
    sysread STDIN, my $asked, 1 or last;
    print map( {"$_\n"} @messages ), ".\n";
    @messages = ();
}
unlink $path;
