# Corrupt and truncated streams: each problem's exact report, which ones
# skip a record and which end the stream, and that every good record before
# a problem is delivered.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(varint framed);

use quillon_event_log::Stream;
use quillon_event_log::Codec qw(encode_event);

my $good = encode_event({ bot_name => 'curl' });    # 0a 04 c u r l: 6 bytes, 7 framed
my $g7 = length framed($good);

# Reads everything with on_error; returns the records' bot names (or '-')
# and the reports, each as "fatal|message".
sub read_all {
    my ($stream, $method, %opt) = @_;
    my (@got, @reports);
    my $r = quillon_event_log::Stream->reader(\$stream, name => 'in.qel', %opt,
        on_error => sub { my ($p) = @_; push @reports, "$p->{fatal}|$p->{message}" });
    while (defined(my $x = $r->$method)) {
        push @got, ref $x eq 'HASH' ? $x->{bot_name} // '-' : ref $x ? $x->bot_name : length $x;
    }
    return (\@got, \@reports);
}

my @cases = (
    ['a record that does not decode is skipped',
     framed($good, "\x0f\x0f", $good), 'next',
     ['curl', 'curl'], ['0|in.qel: record 2 at byte 7: wire type 7 at byte 0 of the record']],
    ['a length running past the end of the record',
     framed($good, "\x0a\x05ab", $good), 'next',
     ['curl', 'curl'], ['0|in.qel: record 2 at byte 7: length of field 1 (bot_name) runs past the end at byte 1 of the record']],
    ['a truncated last record ends the stream',
     framed($good, $good) . "\x09\x0a\x04cu", 'next',
     ['curl', 'curl'], ["1|in.qel: record 3 at byte @{[2 * $g7]}: truncated record: the prefix announces 9 bytes, 4 follow"]],
    ['a truncated length prefix',
     framed($good) . "\x80", 'next',
     ['curl'], ["1|in.qel: record 2 at byte $g7: truncated length prefix"]],
    ['a length prefix of eleven bytes',
     framed($good) . ("\xff" x 11) . "\x01", 'next',
     ['curl'], ["1|in.qel: record 2 at byte $g7: malformed length prefix (longer than 10 bytes)"]],
    ['a record longer than max_record is skipped',
     framed($good, 'x' x 100, $good), 'next_bytes',
     [6, 6], ['0|in.qel: record 2 at byte 7: record of 100 bytes is longer than the limit of 50 bytes'],
     max_record => 50],
    ['a hostile length over a short input',
     framed($good) . varint(2**40) . 'abc', 'next',
     ['curl'], ["1|in.qel: record 2 at byte $g7: truncated record: the prefix announces 1099511627776 bytes, 3 follow"]],
    ['next_bytes does not look inside records',
     framed($good, "\x0f\x0f"), 'next_bytes',
     [6, 2], []],
    ['next_record: the runtime refuses, the codec says why',
     framed($good, "\x0f\x0f", $good), 'next_record',
     ['curl', 'curl'], ['0|in.qel: record 2 at byte 7: wire type 7 at byte 0 of the record']],
    ['an empty stream', '', 'next', [], []],
);

for (@cases) {
    my ($name, $stream, $method, $want_got, $want_reports, %opt) = @$_;
    my ($got, $reports) = read_all($stream, $method, %opt);
    is_deeply $got, $want_got, "$name: records";
    is_deeply $reports, $want_reports, "$name: reports";
}

subtest 'without on_error the problem dies; a skipped record lets reading go on' => sub {
    my $stream = framed($good, "\x0f\x0f", $good) . "\x05";
    my $r = quillon_event_log::Stream->reader(\$stream, name => 'x');
    is $r->next->{bot_name}, 'curl', 'first';
    eval { $r->next };
    is $@, "x: record 2 at byte 7: wire type 7 at byte 0 of the record at $0 line " . (__LINE__ - 1) . ".\n", 'dies';
    is $r->index, 2, 'index of the bad record';
    is $r->offset, 7, 'its offset';
    is $r->last_bytes, "\x0f\x0f", 'its bytes';
    is $r->next->{bot_name}, 'curl', 'the next record reads';
    eval { $r->next };
    like $@, qr/\Ax: record 4 at byte 17: truncated record: the prefix announces 5 bytes, 0 follow at /, 'frame problem dies';
    is $r->next, undef, 'then the stream is over';
};

subtest 'the report hash' => sub {
    my $stream = framed($good, "\x0f\x0f");
    my @seen;
    my $r = quillon_event_log::Stream->reader(\$stream, name => 'n', on_error => sub { push @seen, $_[0] });
    1 while $r->next;
    is_deeply \@seen, [{ file => 'n', index => 2, offset => 7, reason => 'wire type 7 at byte 0 of the record',
                         message => 'n: record 2 at byte 7: wire type 7 at byte 0 of the record', fatal => 0 }],
        'file, index, offset, reason, message, fatal';
};

subtest 'a callback that dies, or closes the reader' => sub {
    my $stream = framed("\x0f\x0f", $good);
    my $r = quillon_event_log::Stream->reader(\$stream, on_error => sub { die "stop\n" });
    eval { $r->next };
    is $@, "stop\n", 'the callback\'s exception';
    is $r->next->{bot_name}, 'curl', 'reading goes on after it';
    my $r2;
    $r2 = quillon_event_log::Stream->reader(\$stream, on_error => sub { $r2->close });
    is $r2->next, undef, 'closed from the callback: undef';
    $r2 = quillon_event_log::Stream->reader(\$stream, on_error => sub { undef $r2 });
    is $r2->next->{bot_name}, 'curl', 'the callback may drop the last reference to the reader';
    is $r2, undef, 'which is then gone';
};

subtest 'gzip problems' => sub {
    my $z = '';
    open my $fh, '>', \$z or die;
    my $w = quillon_event_log::Stream->writer($fh, gzip => 1);
    $w->write_event({ bot_name => "bot$_", http_request => "GET /$_ HTTP/1.1\r\n" . ('h' x ($_ % 97)) }) for 1 .. 3000;
    $w->close;

    my ($got, $reports) = read_all(substr($z, 0, length($z) - 4), 'next');    # no trailer
    is scalar @$got, 3000, 'every record of a gzip file without its trailer';
    like $reports->[0], qr/\A1\|in\.qel: record 3001 at byte \d+: truncated gzip data\z/, 'reported as truncated';

    ($got, $reports) = read_all(substr($z, 0, 5000), 'next');
    ok @$got > 100 && @$got < 3000, 'the records before the cut';
    is_deeply [@$got[0 .. 2]], ['bot1', 'bot2', 'bot3'], 'in order';
    like $reports->[0], qr/\A1\|in\.qel: record \d+ at byte \d+: truncated (?:gzip data|record: .*)\z/, 'reported';

    my $bad = $z;
    substr($bad, 3000, 8) = "\xff" x 8;
    ($got, $reports) = read_all($bad, 'next');
    ok @$got > 50, scalar(@$got) . ' records before the corruption are delivered';
    is_deeply [@$got[0 .. 2]], ['bot1', 'bot2', 'bot3'], 'in order';
    like $reports->[-1], qr/\A1\|in\.qel: record \d+ at byte \d+: corrupt gzip data: .+\z/, 'corrupt gzip data';
};

done_testing;
