# The generated message classes quillon_event_log::IPAddr and
# quillon_event_log::QuillonEventLog, checked in C++: t/cpp/message_classes.cc
# is compiled against src/quillon_event_log.pb.o and the protobuf library, run,
# and each of its TAP lines becomes one test here.
#
# QEL_VALGRIND=1 also runs the program under valgrind: no memory errors, no
# definite leaks, and nothing left in use after the runtime's shutdown.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(build_cpp_ok relay_tap);

my ($dir, $bin) = build_cpp_ok('t/cpp/message_classes.cc');
relay_tap($bin, dir => $dir, valgrind => $ENV{QEL_VALGRIND},
    expected_stderr => "the runtime's reports of invalid UTF-8");

done_testing();
