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
use File::Spec;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(in_path describe_status slurp build_cpp_ok run_program perl_embed_flags);

my ($ccopts, $ldopts) = perl_embed_flags();
my ($dir, $bin) = build_cpp_ok('t/cpp/output_stream.cc',
    objects => ['src/output_stream.o'], cflags => $ccopts, ldflags => $ldopts);

# Passes the program's TAP through: "ok N - name" and "not ok N - name" become
# ok() with the same name (within a TODO when the line ends in "# TODO why"),
# "# " lines following a failure that is not TODO become diag(), all other
# "# " lines note().
# Returns (planned, seen, failed), TODO tests not counted as failed.
sub pass_tap {
    my ($out, $label) = @_;
    my ($planned, $seen, $failed) = (undef, 0, 0);
    my $quiet = 1;    # the last test passed or is TODO
    for my $line (split /\n/, $out) {
        if ($line =~ /^(not )?ok (\d+) - (.*?)(?: # TODO (.*))?$/) {
            my ($bad, $number, $name, $todo) = ($1, $2, $3, $4);
            ++$seen;
            $quiet = !$bad || defined $todo;
            ++$failed if $bad && !defined $todo;
            {
                our $TODO;
                local $TODO = $todo;
                ok(!$bad, "$label$name");
            }
            diag("numbered $number, expected $seen") if $number != $seen;
        }
        elsif ($line =~ /^1\.\.(\d+)$/) {
            $planned = $1;
        }
        elsif ($line =~ /^#\s?(.*)$/) {
            $quiet ? note($1) : diag($1);
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
    note("stderr of the C++ program (the runtime's reports of invalid UTF-8 and the crashes of the"
         . " TODO checks' child processes are expected):\n$stderr")
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
        ok(defined $vplanned && $vplanned == @results && $vout !~ /^not ok \d+ - (?:(?! # TODO ).)*$/m,
           'under valgrind: every C++ check ran and passed')
            or diag($vout);
        like($report, qr/in use at exit: 0 bytes in 0 blocks/,
             'under valgrind: perl_destruct, PERL_SYS_TERM and ShutdownProtobufLibrary() leave nothing in use')
            or diag($report);
        like($report, qr/ERROR SUMMARY: 0 errors from 0 contexts/,
             'under valgrind: nothing is freed twice or read after it was freed')
            or diag($report);
    }
}

done_testing();
