#!/usr/bin/perl
# usage: receive_syslog.pl COMMAND [ARG...]
# Listens where /dev/log leads inside a sandbox, runs the command and prints the line that it logs.
use strict;
use warnings;
use Socket;

my $path = '/tmp/devlog.sock';
socket( my $socket, AF_UNIX, SOCK_DGRAM, 0 ) or die "socket: $!\n";
bind( $socket, pack_sockaddr_un($path) ) or die "bind: $!\n";
system(@ARGV) == 0 or die "$ARGV[0] failed\n";
$SIG{ALRM} = sub { die "no line came\n" };
alarm 10;
defined recv( $socket, my $line, 65536, 0 ) or die "recv: $!\n";
print "$line\n";
