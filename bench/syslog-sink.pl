#!/usr/bin/perl
# Receives what syslog() sends and throws it away: without a reader each line would cost a failed
# connection instead of a delivery.
#
# usage: syslog-sink.pl SOCKET
use strict;
use warnings;
use Socket;

my ($path) = @ARGV;
unlink $path;
socket my $socket, AF_UNIX, SOCK_DGRAM, 0 or die "syslog-sink: socket: $!\n";
bind $socket, pack_sockaddr_un($path)     or die "syslog-sink: $path: $!\n";
my $line;
1 while defined recv $socket, $line, 8192, 0;
