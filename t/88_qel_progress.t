# qel's progress bar, seen through a pseudo-terminal: with standard error on
# a terminal and named input files of more than 4 MiB together, decode,
# filter and report draw a bar (Term::ProgressBar) named after the command
# that reaches 100% and is wiped at the end; nothing is drawn with --quiet,
# with standard error in a file, for input up to 4 MiB, or for standard
# input. Standard output is the same bytes in every case.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(slurp);
use File::Temp qw(tempdir);
use IO::Select ();

BEGIN {
    for my $module (qw(IO::Pty Term::ProgressBar Term::ReadKey)) {
        next if eval "require $module; 1";
        plan skip_all => "$module is not installed (tools/setup-and-build.sh installs it)";
    }
}

use quillon_event_log::Stream;

quillon_event_log::RuntimeLog::mode('silent');    # the gzip case writes bytes that are not UTF-8

my $dir = tempdir(CLEANUP => 1);
my @qel = ($^X, '-Mblib', 'blib/script/qel');
my $COLUMNS = 80;


# Runs qel with standard output in a file and standard error either on the
# slave side of a new pseudo-terminal of $COLUMNS columns ('pty') or in a
# file ('file'); standard input is $opt{stdin} (a path) or /dev/null.
# Returns (stdout, stderr, exit status).
sub qel {
    my ($stderr_to, $opt, @args) = @_;
    my ($out, $err) = ("$dir/stdout", "$dir/stderr");
    my $stdin = $opt->{stdin} // '/dev/null';
    my $pty;
    if ($stderr_to eq 'pty') {
        $pty = IO::Pty->new or die "cannot open a pseudo-terminal: $!";
        $pty->slave->set_winsize(24, $COLUMNS, 0, 0);
    }
    my $pid = fork // die "fork: $!";
    if (!$pid) {
        open STDIN, '<', $stdin or die "$stdin: $!";
        open STDOUT, '>', $out or die "$out: $!";
        if ($pty) {
            my $slave = $pty->slave;
            close $pty;
            open STDERR, '>&', $slave or die "dup of the pty slave: $!";
            close $slave;
        } else {
            open STDERR, '>', $err or die "$err: $!";
        }
        exec @qel, @args or exit 127;
    }
    my $captured = '';
    if ($pty) {
        # Only the child may hold the slave, so that reading the master ends
        # (EOF or EIO) when the child is done with it.
        $pty->close_slave;
        my $select = IO::Select->new($pty);
        while (1) {
            $select->can_read;    # blocks until there is output or the end
            my $n = sysread $pty, my $chunk, 65536;
            last unless $n;       # 0 at EOF, undef (EIO on Linux) once the slave is gone
            $captured .= $chunk;
        }
        close $pty;
    }
    waitpid $pid, 0;
    my $status = $? >> 8;
    return (slurp($out), $pty ? $captured : slurp($err), $status);
}

# Writes a stream of records whose sizes make exactly $size bytes in all:
# records of an http_request (field 8) of about 1 KB, the last one sized to
# fill the rest. Returns the path.
my %records;    # path => how many records it holds
sub stream_of_size {
    my ($name, $size) = @_;
    my $path = "$dir/$name";
    my $w = quillon_event_log::Stream->writer($path);
    my $record = sub {    # the bytes of a record of $len bytes in all
        my ($i, $len) = @_;
        my $head = sprintf "GET /item/%06d HTTP/1.1\r\nHost: shop.example\r\n", $i;
        my $body_len = $len - 3;    # tag 0x42 and a two-byte length
        die "record $i of $len bytes cannot be made\n" if $body_len < length($head) || $body_len >= 16384 || $body_len < 128;
        my $text = $head . ('x' x ($body_len - length $head));
        return "\x42" . chr(0x80 | ($body_len & 0x7f)) . chr($body_len >> 7) . $text;
    };
    my ($left, $i) = ($size, 0);
    while ($left > 0) {
        # each record is its two-byte length prefix and then its bytes
        my $len = $left - 2 > 2 * 1030 ? 1030 : $left - 2 > 1030 ? int(($left - 2) / 2) : $left - 2;
        my $bytes = $record->(++$i, $len);
        $w->write_bytes($bytes);
        $left -= 2 + length $bytes;
    }
    $records{$path} = $w->count;
    $w->close;
    die "$path has " . (-s $path) . " bytes, not $size\n" unless -s $path == $size;
    return $path;
}

my $MiB = 1024 * 1024;
my $big   = stream_of_size('big.qel', 6 * $MiB);           # 6,291,456 bytes: a bar
my $edge  = stream_of_size('edge.qel', 4 * $MiB);          # exactly 4 MiB: no bar
my $above = stream_of_size('above.qel', 4 * $MiB + 1);     # one byte more: a bar
my $small = stream_of_size('small.qel', 300_000);          # no bar
my $part1 = stream_of_size('part1.qel', 3 * $MiB);         # two files of 3 MiB: a bar
my $part2 = stream_of_size('part2.qel', 3 * $MiB);

# What Term::ProgressBar draws for a command, from what qel wrote on the
# terminal: each frame starts with a carriage return and is the name, the
# percentage right-aligned in 3, the bar in brackets (80 columns less the
# name, ": ", "100% ", the brackets and 10 for the time estimate), then up
# to 10 characters of time estimate, which depend on the clock and are not
# compared. The last frame is a line of blanks that wipes the bar.
sub frames_ok {
    my ($captured, $command, $what) = @_;
    my $name = "qel $command";
    my $width = $COLUMNS - length($name) - 2 - 5 - 2 - 10;
    my @frames = split /\r/, $captured, -1;
    is shift(@frames), '', "$what: the output starts with a carriage return";
    is pop(@frames), '', "$what: and ends with one";
    my $wipe = pop @frames;
    is $wipe, ' ' x $COLUMNS, "$what: the bar is wiped at the end";
    like $frames[0], qr/\A\Q$name\E:   0% \[(?:\* {@{[$width - 1]}}| {$width})\]\z/, "$what: the first frame is at 0%";
    like $frames[-1], qr/\A\Q$name\E: 100% \[={$width}\].{0,10}\z/s, "$what: the last frame is at 100%";
    my @odd = grep { !/\A\Q$name\E: +(?:[0-9]|[1-9][0-9]|100)% \[[=* ]{$width}\].{0,10}\z/s } @frames;
    is_deeply \@odd, [], "$what: every frame is a bar of $width columns";
    my @percent = map { /: +([0-9]+)%/ ? $1 : () } @frames;
    is_deeply [grep { $percent[$_] < $percent[$_ - 1] } 1 .. $#percent], [], "$what: the percentage never goes back";
}

# The reference outputs, with standard error in a file.
my %ref;
for my $case (['decode', '--json', $big], ['report', $big], ['filter', '--match', 'http_request=^GET ', $big]) {
    my ($out, $err, $st) = qel('file', {}, @$case);
    is_deeply [$err, $st], ['', 0], "$case->[0] with standard error in a file: nothing on it, status 0";
    $ref{ $case->[0] } = $out;
}
is scalar(() = $ref{decode} =~ /\n/g), $records{$big}, 'decode --json: one line per record of the big file';
ok $ref{filter} eq slurp($big), 'filter: every record matches, so the output is the input, byte for byte';
like $ref{report}, qr/^  records +$records{$big}\n/m, "report: the record count, $records{$big}";

subtest 'decode --json on a terminal: a bar' => sub {
    my ($out, $err, $st) = qel('pty', {}, 'decode', '--json', $big);
    is $st, 0, 'status 0';
    ok $out eq $ref{decode}, 'standard output is the same bytes as without a terminal';
    like $err, qr/\A\rqel decode:   0% \[/, 'the bar starts with the name "qel decode:" and 0%';
    frames_ok($err, 'decode', 'decode');
};

subtest 'report and filter on a terminal: a bar named after the command' => sub {
    my ($out, $err, $st) = qel('pty', {}, 'report', $big);
    is $st, 0, 'report: status 0';
    ok $out eq $ref{report}, 'report: standard output is the same bytes as without a terminal';
    frames_ok($err, 'report', 'report');
    ($out, $err, $st) = qel('pty', {}, 'filter', '--match', 'http_request=^GET ', $big);
    is $st, 0, 'filter: status 0';
    ok $out eq slurp($big), 'filter: every record, byte for byte';
    frames_ok($err, 'filter', 'filter');
};

subtest '--quiet: no bar' => sub {
    for my $case (['decode', '--quiet', '--json', $big], ['report', '--quiet', $big],
                  ['filter', '--quiet', '--match', 'http_request=^GET ', $big]) {
        my ($out, $err, $st) = qel('pty', {}, @$case);
        is_deeply [$err, $st], ['', 0], "$case->[0] --quiet: nothing on the terminal, status 0";
        ok $out eq $ref{ $case->[0] }, "$case->[0] --quiet: the same standard output";
    }
};

subtest 'standard error not a terminal: no bar' => sub {
    # The reference runs above had standard error in a file: checked there.
    my ($out, $err, $st) = qel('file', {}, 'decode', '--json', '--fields', 'request_uri', $big);
    is_deeply [$err, $st], ['', 0], 'decode --fields: nothing in the file, status 0';
    is $out, qq({}\n) x $records{$big}, 'and the output';
};

subtest 'up to 4 MiB: no bar; more: a bar' => sub {
    my ($out, $err, $st) = qel('pty', {}, 'decode', '--json', '--fields', 'bot_name', $small);
    is_deeply [$err, $st], ['', 0], '300,000 bytes: nothing drawn';
    is $out, qq({}\n) x $records{$small}, '300,000 bytes: the output';
    ($out, $err, $st) = qel('pty', {}, 'decode', '--json', '--fields', 'bot_name', $edge);
    is_deeply [$err, $st], ['', 0], 'exactly 4,194,304 bytes: nothing drawn';
    is $out, qq({}\n) x $records{$edge}, 'exactly 4,194,304 bytes: the output';
    ($out, $err, $st) = qel('pty', {}, 'decode', '--json', '--fields', 'bot_name', $above);
    is $st, 0, '4,194,305 bytes: status 0';
    is $out, qq({}\n) x $records{$above}, '4,194,305 bytes: the output';
    frames_ok($err, 'decode', '4,194,305 bytes');
};

subtest 'several files: the bar covers them together' => sub {
    my ($out, $err, $st) = qel('pty', {}, 'filter', '--match', 'http_request=^GET ', $part1, $part2);
    is $st, 0, 'status 0';
    ok $out eq slurp($part1) . slurp($part2), 'the records of both files, byte for byte';
    frames_ok($err, 'filter', 'two files of 3 MiB');
    ($out, $err, $st) = qel('pty', {}, 'filter', '--match', 'http_request=^GET ', $part1, $small);
    is_deeply [$err, $st], ['', 0], 'two files of 3,445,728 bytes together: nothing drawn';
    ok $out eq slurp($part1) . slurp($small), 'and the records of both';
};

subtest 'gzip: the bar follows the compressed bytes to 100%' => sub {
    # Bytes that do not compress (a chain of MD5 digests), so that the gzip
    # file itself is larger than 4 MiB.
    require Digest::MD5;
    my ($plain, $gz) = ("$dir/noise.qel", "$dir/noise.qel.gz");
    my @writers = (quillon_event_log::Stream->writer($plain), quillon_event_log::Stream->writer($gz, gzip => 1));
    my $digest = 'seed';
    for my $i (1 .. 4500) {
        my $noise = '';
        $noise .= $digest = Digest::MD5::md5($digest) for 1 .. 64;    # 1024 bytes
        $_->write_event({ http_request => $noise, request_time => 1763596800 + $i }) for @writers;
    }
    $_->close for @writers;
    cmp_ok -s $gz, '>', 4 * $MiB, 'the gzip file has more than 4 MiB';
    my ($out, $err, $st) = qel('pty', {}, 'filter', '--since', '1763596801', $gz);
    is $st, 0, 'status 0';
    ok $out eq slurp($plain), 'every record, decompressed, byte for byte';
    frames_ok($err, 'filter', 'gzip');
};

subtest 'standard input: no bar, whatever its size' => sub {
    my ($out, $err, $st) = qel('pty', { stdin => $big }, 'decode', '--json');
    is_deeply [$err, $st], ['', 0], 'decode of standard input: nothing drawn';
    ok $out eq $ref{decode}, 'and the same output';
    ($out, $err, $st) = qel('pty', { stdin => $big }, 'filter', '--match', 'http_request=^GET ', '-', $small);
    is_deeply [$err, $st], ['', 0], '"-" among the files: nothing drawn';
    ok $out eq slurp($big) . slurp($small), 'and the records of both';
};

done_testing;
