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
use File::Temp qw(tempdir);
use FindBin;

my $root   = File::Spec->rel2abs(File::Spec->catdir($FindBin::Bin, File::Spec->updir));
my $src    = File::Spec->catfile($root, 't', 'cpp', 'message_classes.cc');
my $pb_dir = File::Spec->catdir($root, 'src');
my $pb_obj = File::Spec->catfile($pb_dir, 'quillon_event_log.pb.o');
my $pb_h   = File::Spec->catfile($pb_dir, 'quillon_event_log.pb.h');

sub in_path {
    my $prog = shift;
    for my $dir (File::Spec->path) {
        my $file = File::Spec->catfile($dir, $prog);
        return $file if -f $file && -x _;
    }
    return undef;
}

sub sh_quote {
    my $s = shift;
    $s =~ s/'/'\\''/g;
    return "'$s'";
}

my $gxx = in_path('g++')
    or plan skip_all => 'g++ is not installed (apt-get install g++)';
in_path('pkg-config') && system('pkg-config --exists protobuf') == 0
    or plan skip_all => 'pkg-config protobuf is not available (apt-get install pkg-config libprotobuf-dev)';
-e $pb_obj && -e $pb_h
    or plan skip_all => 'src/quillon_event_log.pb.o has not been built yet (run make)';

chomp(my $pb_cflags = `pkg-config --cflags protobuf`);
chomp(my $pb_libs   = `pkg-config --libs protobuf`);

my $dir = tempdir('qel-message-classes-XXXXXX', TMPDIR => 1, CLEANUP => 1);
my $bin = File::Spec->catfile($dir, 'message_classes');

my $compile = join ' ', sh_quote($gxx), '-std=gnu++17', '-O1', '-I' . sh_quote($pb_dir), $pb_cflags,
    '-o', sh_quote($bin), sh_quote($src), sh_quote($pb_obj), $pb_libs;
my $compiler_output = `$compile 2>&1`;
my $compiled = $? == 0 && -x $bin;
ok($compiled, 't/cpp/message_classes.cc compiles and links with src/quillon_event_log.pb.o')
    or diag("$compile\n$compiler_output");
unless ($compiled) {
    done_testing();
    exit;
}

# Runs the program (under @prefix, if given) and returns its stdout, its wait
# status and what it wrote on stderr.
sub run_program {
    my @prefix = @_;
    my $err = File::Spec->catfile($dir, 'stderr.txt');
    my $cmd = join ' ', (map { sh_quote($_) } @prefix, $bin), '2>' . sh_quote($err);
    my $out = `$cmd`;
    my $status = $?;
    my $stderr = '';
    if (open my $fh, '<', $err) {
        local $/;
        $stderr = <$fh> // '';
    }
    return ($out, $status, $stderr);
}

sub describe_status {
    my $status = shift;
    return 'could not run' if $status == -1;
    return 'killed by signal ' . ($status & 127) if $status & 127;
    return 'exit ' . ($status >> 8);
}

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

my ($out, $status, $stderr) = run_program();
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
            $valgrind, '--error-exitcode=99', '--leak-check=full', '--errors-for-leak-kinds=definite',
            '--child-silent-after-fork=yes', "--log-file=$log",
        );
        my $report = '';
        if (open my $fh, '<', $log) {
            local $/;
            $report = <$fh> // '';
        }
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
