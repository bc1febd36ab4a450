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
use File::Spec;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(in_path describe_status slurp build_cpp_ok run_program);

my ($dir, $bin) = build_cpp_ok('t/cpp/message_classes.cc');

# Passes the program's TAP through: "ok N - name" and "not ok N - name" become
# ok() with the same name, "# " lines following a failure become diag(), all
# other "# " lines note(). Returns (planned, seen, failed).
sub pass_tap {
    my ($out, $label) = @_;
    my ($planned, $seen, $failed, $last_ok) = (undef, 0, 0, 1);
    for my $line (split /\n/, $out) {
        if ($line =~ /^(not )?ok (\d+) - (.*)$/) {
            my ($bad, $number, $name) = ($1, $2, $3);
            ++$seen;
            $last_ok = !$bad;
            ++$failed if $bad;
            ok($last_ok, "$label$name");
            diag("numbered $number, expected $seen") if $number != $seen;
        }
        elsif ($line =~ /^1\.\.(\d+)$/) {
            $planned = $1;
        }
        elsif ($line =~ /^#\s?(.*)$/) {
            $last_ok ? note($1) : diag($1);
        }
        else {
            diag("unexpected output: $line");
        }
    }
    return ($planned, $seen, $failed);
}

my ($out, $status, $stderr) = run_program([$bin], dir => $dir);
my ($planned, $seen, $failed) = pass_tap($out, '');
ok(defined $planned && $planned == $seen && $seen > 0,
   'the C++ checks all ran (' . ($planned // 'no plan') . " planned, $seen seen)");
is($status, 0, 'the C++ program exits 0') or diag(describe_status($status));
if ($failed || $status != 0) {
    diag("stderr of the C++ program:\n$stderr") if length $stderr;
}
else {
    note("stderr of the C++ program (the runtime's reports of invalid UTF-8 are expected):\n$stderr")
        if length $stderr;
}

if ($ENV{QEL_VALGRIND}) {
    SKIP: {
        my $valgrind = in_path('valgrind')
            or skip 'valgrind is not installed (apt-get install valgrind)', 4;
        my $log = File::Spec->catfile($dir, 'valgrind.log');
        my ($vout, $vstatus) = run_program(
            [$valgrind, '--error-exitcode=99', '--leak-check=full', '--errors-for-leak-kinds=definite',
             '--child-silent-after-fork=yes', "--log-file=$log", $bin],
            dir => $dir,
        );
        my $report = slurp($log);
        is($vstatus, 0, 'under valgrind: exit 0 (no memory errors, no definite leaks)')
            or diag(describe_status($vstatus) . "\n$report");
        my @results = $vout =~ /^(?:not )?ok \d+ - /mg;
        my ($vplanned) = $vout =~ /^1\.\.(\d+)$/m;
        ok(defined $vplanned && $vplanned == @results && $vout !~ /^not ok /m,
           'under valgrind: every C++ check ran and passed')
            or diag($vout);
        like($report, qr/in use at exit: 0 bytes in 0 blocks/,
             'under valgrind: ShutdownProtobufLibrary() leaves nothing in use')
            or diag($report);
        like($report, qr/ERROR SUMMARY: 0 errors from 0 contexts/,
             'under valgrind: nothing is freed twice or read after it was freed')
            or diag($report);
    }
}

done_testing();
