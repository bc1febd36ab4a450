# qel::OutputStream, the zero-copy output stream pack serialises through, and
# pack_record(), checked in C++: t/cpp/output_stream.cc embeds a perl, is
# compiled against src/output_stream.o and src/quillon_event_log.pb.o, run,
# and each of its TAP lines becomes one test here (its "# TODO" lines stay
# TODO tests).
#
# QEL_VALGRIND=1 also runs the program under valgrind: no memory errors, no
# definite leaks, and nothing left in use once the interpreter is destructed
# and the runtime shut down. (The checks that run in child processes are not
# looked at by valgrind.)
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(build_cpp_ok relay_tap perl_embed_flags);

my ($ccopts, $ldopts) = perl_embed_flags();
my ($dir, $bin) = build_cpp_ok('t/cpp/output_stream.cc',
    # the writer takes its tags from the codec's field table
    objects => [map { "src/$_.o" } qw(output_stream codec_common wire_format field_table hash_form)],
    cflags => $ccopts, ldflags => $ldopts);
relay_tap($bin, dir => $dir, valgrind => $ENV{QEL_VALGRIND},
    expected_stderr => "the runtime's reports of invalid UTF-8 and the crashes of the TODO checks' child processes",
    cleanup => 'perl_destruct, PERL_SYS_TERM and ShutdownProtobufLibrary() leave nothing in use');

done_testing();
