# quillon_event_log::Stream: framing, the three ways to read, the writer's
# three ways to write, gzip, and where each record stood.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(varint framed encode_ref record_hash_of_length unknown_field_samples unhex run_perl);
use File::Temp qw(tempdir);

use quillon_event_log::Stream;
use quillon_event_log::Codec qw(encode_event decode_event);
use quillon_event_log::QuillonEventLog;

my $dir = tempdir(CLEANUP => 1);
my $CLASS = 'quillon_event_log::QuillonEventLog';

sub slurp_raw { my ($p) = @_; open my $fh, '<:raw', $p or die "$p: $!"; local $/; <$fh> }

my @events = (
    { bot_name => 'curl', request_time => 1763596800 },
    {},
    { host => 'shop.example', anomalies => ['a', 'b'], src_port => 443, device_id => '18446744073709551615' },
);
my @bytes = map { encode_event($_) } @events;

subtest 'writer: the three ways to write, exact bytes' => sub {
    my $path = "$dir/three.qel";
    my $w = quillon_event_log::Stream->writer($path);
    $w->write_event($events[0]);
    $w->write_record($CLASS->new);                 # an empty record: length 0
    $w->write_bytes($bytes[2]);
    is $w->count, 3, 'count';
    is $w->name, $path, 'name is the path';
    ok $w->close, 'close';
    is unpack('H*', slurp_raw($path)), unpack('H*', framed($bytes[0], '', $bytes[2])), 'bytes on disk';
    is unpack('H*', framed('')), '00', 'an empty record is one zero byte';

    my $buf = '';
    open my $fh, '>', \$buf or die;
    my $w2 = quillon_event_log::Stream::Writer->new($fh);
    $w2->write_record($CLASS->new({ bot_name => 'x' }));
    $w2->close;
    is unpack('H*', $buf), '030a0178', 'a record object is written as its true encoding';
    is $w2->name, 'handle', 'default name of a handle';
    eval { $w2->write_bytes('x') };
    like $@, qr/\Athe writer is closed at /, 'a closed writer takes no more';
};

# write_record writes small records with the runtime's serialiser and others
# through the direct writer: the bytes must not tell which.
subtest 'write_record: the true encoding at every size, unknown fields kept' => sub {
    my (@want, @records);
    for my $len (2 .. 40, 250 .. 262, 900, 4000, 65530 .. 65540, 70000) {
        for my $shape ('string', 'mixed') {
            my $h = record_hash_of_length($len, $shape);
            push @records, $CLASS->new($h);
            push @want, encode_ref($h);
        }
    }
    my $typical = record_hash_of_length(300, 'mixed');
    for my $sample (unknown_field_samples()) {
        my $bytes = encode_ref($typical) . unhex($sample->[1]);
        push @records, $CLASS->new($bytes);
        push @want, $bytes;
        my $in_address = encode_ref({ %$typical, client_ip => {} });
        $in_address =~ /\x22\x00/ or die 'no empty client_ip in the encoding';
        my $address = "\x22" . chr(length unhex($sample->[1])) . unhex($sample->[1]);
        (my $bytes2 = $in_address) =~ s/\x22\x00/$address/;
        push @records, $CLASS->new($bytes2);
        push @want, $bytes2;
    }
    my $buf = '';
    open my $fh, '>', \$buf or die;
    my $w = quillon_event_log::Stream::Writer->new($fh);
    $w->write_record($_) for @records;
    $w->close;
    is $w->count, scalar @records, scalar(@records) . ' records written';
    my $ok = 1;
    my $at = 0;
    for my $i (0 .. $#want) {
        my $frame = framed($want[$i]);
        next if substr($buf, $at, length $frame) eq $frame && ($at += length $frame);
        $ok = 0;
        diag "record $i (" . length($want[$i]) . " bytes) differs at offset $at";
        last;
    }
    ok $ok && $at == length $buf, 'each is its reference encoding, framed, and nothing else';
};

subtest 'write_record: a string that is not UTF-8 is logged once, as by pack' => sub {
    for my $len (60, 600) {
        my ($status, $out) = run_perl(<<"PERL");
use quillon_event_log::QuillonEventLog; use quillon_event_log::Stream;
my \$r = quillon_event_log::QuillonEventLog->new({ host => 'h' x $len, reason => "\\xff\\xfe" });
my \$buf = '';
open my \$fh, '>', \\\$buf or die;
my \$w = quillon_event_log::Stream::Writer->new(\$fh);
print STDERR "write_record\\n";
\$w->write_record(\$r);
\$w->close;
print STDERR "pack\\n";
my \$p = \$r->pack;
print STDERR substr(\$buf, length(\$buf) - length(\$p)) eq \$p ? "same bytes\\n" : "other bytes\\n";
PERL
        my $line = qr/\[libprotobuf ERROR google\/protobuf\/wire_format_lite\.cc:\d+\] String field 'quillon_event_log\.QuillonEventLog\.reason' contains invalid UTF-8 data when serializing a protocol buffer\. Use the 'bytes' type if you intend to send raw bytes\. \n/;
        is $status, 0, "host of $len bytes: exit status 0";
        like $out, qr/\Awrite_record\n${line}pack\n${line}same bytes\n\z/, "host of $len bytes: one line each, the same bytes";
    }
};

subtest 'reader: hashes, objects and bytes, with index and offset' => sub {
    my $stream = framed(@bytes);
    my $r = quillon_event_log::Stream->reader(\$stream);
    is $r->index, undef, 'no index before the first record';
    is $r->offset, undef, 'no offset before the first record';
    is_deeply $r->next, $events[0], 'first as a hash';
    is $r->index, 1, 'index 1';
    is $r->offset, 0, 'offset 0';
    is_deeply $r->next, {}, 'the empty record';
    is_deeply [$r->index, $r->offset], [2, 1 + length $bytes[0]], 'where the empty record stood';
    is_deeply $r->next, decode_event($bytes[2]), 'third';
    is $r->last_bytes, $bytes[2], 'last_bytes';
    is $r->next, undef, 'undef at the end';
    is $r->next, undef, 'and again';
    is $r->name, 'scalar', 'name of a scalar source';

    $r = quillon_event_log::Stream->reader(\$stream);
    my $rec = $r->next_record;
    isa_ok $rec, $CLASS;
    is $rec->bot_name, 'curl', 'next_record';
    is $r->next_bytes, '', 'next_bytes of the empty record';
    is $r->next_bytes, $bytes[2], 'next_bytes';
    is $r->next_record, undef, 'end';

    my $path = "$dir/read.qel";
    open my $out, '>:raw', $path or die;
    print $out $stream;
    close $out;
    open my $in, '<', $path or die;
    $r = quillon_event_log::Stream::Reader->new($in, name => 'mine');
    is $r->name, 'mine', 'name option';
    my @got;
    while (my $e = $r->next) { push @got, $e }
    is_deeply \@got, \@events, 'from a file handle';
    $r = quillon_event_log::Stream->reader($path);
    is $r->name, $path, 'name of a path';
    is scalar(() = map { $r->next } 1 .. 3), 3, 'from a path';
    is $r->bytes_in, length $stream, 'bytes_in';
    ok !$r->compressed, 'not compressed';
    $r->close;
    eval { $r->next };
    like $@, qr/\Athe reader is closed at /, 'a closed reader';
};

subtest 'codec options pass on' => sub {
    my $b = encode_event({ bot_name => "caf\xc3\xa9", client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 } });
    my $stream = framed($b);
    my $r = quillon_event_log::Stream->reader(\$stream, characters => 1, addresses => 'text');
    is_deeply $r->next, { bot_name => "caf\x{e9}", client_ip => '203.0.113.45' }, 'characters and text addresses';
    $r = quillon_event_log::Stream->reader(\$stream, codec => quillon_event_log::Codec->new(addresses => 'text'));
    is_deeply $r->next, { bot_name => "caf\xc3\xa9", client_ip => '203.0.113.45' }, 'a codec object';
    my $buf = '';
    open my $fh, '>', \$buf or die;
    my $w = quillon_event_log::Stream->writer($fh, addresses => 'text');
    $w->write_event({ client_ip => '203.0.113.45' });
    $w->close;
    is $buf, framed(encode_event({ client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 } })),
        'the writer encodes with its options';
};

subtest 'fields: only the fields asked for' => sub {
    my $b = encode_event({ bot_name => 'curl', host => 'h', anomalies => ['x'], request_time => 5,
                           client_ip => { ip3 => 1 }, _unknown => ['0:980601'] });
    my $stream = framed($b, $b);
    my $r = quillon_event_log::Stream->reader(\$stream, fields => [qw(request_time anomalies client_ip)]);
    is_deeply $r->next, { request_time => 5, anomalies => ['x'], client_ip => { ip3 => 1 } }, 'three fields, no _unknown';
    is $r->next_bytes, $b, 'next_bytes is not affected';
    $r = quillon_event_log::Stream->reader(\framed("\x0a\x01a\x22\x02\x08\x80"), fields => ['bot_name']);
    is_deeply $r->next, { bot_name => 'a' }, 'a broken field not asked for is passed over';
};

subtest 'the scalar is copied: changing it afterwards changes nothing' => sub {
    my $stream = framed(@bytes);
    my $r = quillon_event_log::Stream->reader(\$stream);
    $stream = "\xff" x 40;
    is_deeply $r->next, $events[0], 'still the original bytes';
    my $wide = "\x{100}";
    eval { quillon_event_log::Stream->reader(\$wide) };
    like $@, qr/\Athe scalar to read holds wide characters: encode it to bytes first at /, 'wide characters refused';
};

subtest 'records across block boundaries, and many records' => sub {
    my @big = map { encode_event({ http_request => chr(65 + $_ % 26) x (1000 + 997 * $_), request_time => $_ }) } 0 .. 199;
    my $stream = framed(@big);
    ok length($stream) > 10 * 65536, 'the stream spans many 64 KiB blocks';
    my $path = "$dir/big.qel";
    open my $out, '>:raw', $path or die;
    print $out $stream;
    close $out;
    my $r = quillon_event_log::Stream->reader($path);
    my ($n, $offset, $bad) = (0, 0, 0);
    while (defined(my $b = $r->next_bytes)) {
        $bad++ if $b ne $big[$n] || $r->offset != $offset;
        $offset += length(varint(length $b)) + length $b;
        $n++;
    }
    is $n, 200, 'all records';
    is $bad, 0, 'each with its bytes and offset';
};

subtest 'gzip: written, read, recognised by its bytes' => sub {
    my $path = "$dir/g.qel";    # no .gz on purpose
    my $w = quillon_event_log::Stream->writer($path, gzip => 1);
    $w->write_event({ bot_name => "bot$_", request_time => $_ }) for 1 .. 5000;
    $w->close;
    is substr(slurp_raw($path), 0, 2), "\x1f\x8b", 'gzip magic';
    my $r = quillon_event_log::Stream->reader($path);
    my $n = 0;
    while (my $e = $r->next) { $n++ if $e->{bot_name} eq "bot" . ($n + 1) }
    is $n, 5000, 'every record back, in order';
    ok $r->compressed, 'compressed';

    # Two gzip members one after the other read as one stream.
    my ($a, $b) = (framed(@bytes[0, 1]), framed($bytes[2]));
    my $cat = '';
    for my $part ($a, $b) {
        open my $fh, '>', \my $z or die;
        my $gw = quillon_event_log::Stream->writer($fh, gzip => 9);
        $gw->write_bytes($_) for $part eq $a ? @bytes[0, 1] : $bytes[2];
        $gw->close;
        $cat .= $z;
    }
    $r = quillon_event_log::Stream->reader(\$cat);
    my @got;
    while (defined(my $x = $r->next_bytes)) { push @got, $x }
    is_deeply \@got, \@bytes, 'concatenated members';
    is $r->offset, length framed(@bytes[0, 1]), 'offsets count decompressed bytes';

  SKIP: {
        skip 'gzip(1) is not installed', 1 unless grep { -x "$_/gzip" } split /:/, $ENV{PATH};
        my $plain = "$dir/plain.qel";
        open my $out, '>:raw', $plain or die;
        print $out framed(@bytes);
        close $out;
        system('gzip', '-k', '-f', $plain) == 0 or die 'gzip failed';
        $r = quillon_event_log::Stream->reader("$plain.gz");
        my @e;
        while (my $e = $r->next) { push @e, $e }
        is_deeply \@e, \@events, "a file made by gzip(1)";
    }
};

subtest 'option errors' => sub {
    my $s = '';
    my @cases = (
        [sub { quillon_event_log::Stream->reader(\$s, colour => 1) },
         'unknown option "colour" (known options: addresses, characters, codec, fields, max_record, name, on_error, stripe, unknown_fields)'],
        [sub { quillon_event_log::Stream->writer(\*STDOUT, colour => 1) },
         'unknown option "colour" (known options: addresses, characters, codec, gzip, name, unknown_fields)'],
        [sub { quillon_event_log::Stream->reader(\$s, on_error => 1) }, 'option on_error must be a code reference'],
        [sub { quillon_event_log::Stream->reader(\$s, max_record => 0) }, 'option max_record must be a positive integer, not "0"'],
        [sub { quillon_event_log::Stream->reader(\$s, codec => 1) }, 'option codec must be a quillon_event_log::Codec object'],
        [sub { quillon_event_log::Stream->reader(\$s, addresses => 'text', codec => quillon_event_log::Codec->new) },
         'give either codec or the codec options, not both'],
        [sub { quillon_event_log::Stream->reader(\$s, addresses => 'dotted') },
         'option addresses must be "hash" or "text", not "dotted"'],
        [sub { quillon_event_log::Stream->reader("$dir/missing.qel") }, "cannot open $dir/missing.qel: No such file or directory"],
        [sub { quillon_event_log::Stream->reader([]) }, 'the source must be a path, a file handle or a reference to a byte string'],
        [sub { quillon_event_log::Stream->writer({}) }, 'the destination must be a path or a file handle'],
        [sub { quillon_event_log::Stream->writer("$dir/no/such/dir/x") }, "cannot open $dir/no/such/dir/x for writing: No such file or directory"],
    );
    push @cases,
        [sub { quillon_event_log::Stream->reader(\$s, fields => 'bot_name') }, 'option fields must be an array reference of field names'],
        [sub { quillon_event_log::Stream->reader(\$s, fields => ['bot_nmae']) },
         'option fields: unknown field "bot_nmae" (did you mean "bot_name"?)'];
    for (@cases) {
        my ($code, $text) = @$_;
        eval { $code->() };
        like $@, qr/\A\Q$text\E at \Q$0\E line \d+\.\n\z/, $text;
    }
    my $buf = '';
    open my $fh, '>', \$buf or die;
    my $w = quillon_event_log::Stream->writer($fh);
    eval { $w->write_event({ bot_nmae => 'x' }) };
    like $@, qr/\Aunknown field "bot_nmae" \(did you mean "bot_name"\?\) at /, 'write_event is strict';
    eval { $w->write_record(quillon_event_log::IPAddr->new) };
    like $@, qr/\ATHIS is not of type quillon_event_log::QuillonEventLog at /, 'write_record takes only records';
    eval { $w->write_record(bless \(my $zero = 0), $CLASS) };
    like $@, qr/\Awrite_record: the object holds no record at /, 'an empty handle is refused';
    eval { $w->write_bytes("\x{100}") };
    like $@, qr/\Awrite_bytes: wide character in the bytes to write at /, 'wide characters refused';
    $w->close;
    is $buf, '', 'nothing was written';
    eval { quillon_event_log::Stream::Reader::next(bless \(my $x = 5), 'quillon_event_log::Stream::Reader') };
    like $@, qr/\ATHIS is not a quillon_event_log::Stream::Reader made by this module at /, 'a forged reader';
};

subtest 'write errors' => sub {
    local $SIG{PIPE} = 'IGNORE';
    pipe my $rd, my $wr or die;
    close $rd;
    my $w = quillon_event_log::Stream->writer($wr, name => 'pipe');
    $w->write_bytes('x' x 100);
    eval { $w->flush };
    like $@, qr/\Apipe: write error: Broken pipe at /, 'flush into a closed pipe';
    undef $w;
    no warnings 'io';
    close $wr;
};

done_testing;
