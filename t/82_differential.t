# A seeded randomised differential test: random records of t/lib/QelRandom.pm
# (QEL_DIFF_RECORDS of them, default 3000; seed QEL_DIFF_SEED), some with
# unknown fields put in at the wire level, go through the module, protoc and
# the pure-Perl library, and each property below must hold for every record.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use QelRandom;
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';
my $ALL = () = field_names();

my $N = $ENV{QEL_DIFF_RECORDS} // 3000;
my $SEED = $ENV{QEL_DIFF_SEED} // 20240917;
die "QEL_DIFF_RECORDS must be a whole number of at least 1, not '$N'\n" unless $N =~ /^[0-9]+\z/ && $N >= 1;
die "QEL_DIFF_SEED must be an unsigned 64-bit decimal number, not '$SEED'\n"
    unless $SEED =~ /^[0-9]{1,20}\z/ && (length($SEED) < 20 || $SEED le '18446744073709551615');
my $REPEAT = "seed $SEED, $N records: QEL_DIFF_SEED=$SEED QEL_DIFF_RECORDS=$N prove -b $0 repeats this run;"
            . " record I alone is QelRandom->new($SEED, I)->record";
note $REPEAT;

my $protoc_skip = protoc_skip_reason();
my $peer_skip = perl_peer_skip_reason();
my $PEER = defined $peer_skip ? undef : perl_peer();

# ---- the generator ----------------------------------------------------------------

{
    my $g = QelRandom->new(0);
    is join(' ', map { sprintf '%016x', $g->next64 } 1 .. 4),
        'e220a8397b1dcdaf 6e789e6aa1b965f4 06c45d188009454f f88bb8a8724c81ec',
        'the generator of seed 0 gives the first numbers of splitmix64';
    is hash_text(QelRandom->new($SEED, 17)->record), hash_text(QelRandom->new($SEED, 17)->record),
        'a seed and a record number give the same record each time';
}

# ---- the properties -----------------------------------------------------------------

my @PROPS = (
    [identity      => 'hash -> new -> to_hashref gives the hash back'],
    [oracle        => "pack gives the bytes of the suite's own encoder (encode_ref)"],
    [repack        => 'new of the bytes with unknown fields, then pack: known fields as before, unknown ones after them'],
    [stable        => 'pack -> new -> pack gives the same bytes (with and without unknown fields)'],
    [hidden        => 'to_hashref of the bytes with unknown fields is the hash'],
    [protoc_decode => 'protoc decodes pack (unknown fields included) to the text of debug_string'],
    [protoc_encode => "protoc encodes the text of debug_string to the bytes of pack"],
    [peer_decode   => 'the Perl peer decodes pack (unknown fields included but those with a 10-byte varint, see t/81) to to_hashref'],
    [peer_encode   => "new reads the Perl peer's encoding of the hash to the hash"],
    [peer_bytes    => "the Perl peer's encoding of the hash is the bytes of pack"],
);
my (%checked, %passed, %failed_first);
my %stats = map { $_ => 0 } qw(empty full unknown long bytes longest);
my @types = (0) x 6;    # unknown fields put in, by wire type


# The bytes to hand a peer: an empty record packs to 16 zero bytes on
# purpose, while its encoding is empty.
sub peer_bytes { my $r = shift; $r->length ? $r->pack : '' }

sub clip { my ($s, $n) = @_; length $s > $n ? substr($s, 0, $n) . '...(' . length($s) . ' in all)' : $s }

# Where two byte strings or texts first differ, with some context in hex.
sub difference {
    my ($got, $exp) = @_;
    return 'got undef' unless defined $got;
    my ($i, $max) = (0, length $got < length $exp ? length $got : length $exp);
    $i++ while $i < $max && substr($got, $i, 1) eq substr($exp, $i, 1);
    my $from = $i > 16 ? $i - 16 : 0;
    return sprintf "lengths %d (got) and %d (expected), first difference at offset %d:\n"
        . "    got      ...%s\n    expected ...%s",
        length $got, length $exp, $i, hexs(substr $got, $from, 48), hexs(substr $exp, $from, 48);
}

# check($property, $index, $ok, $detail): counts the outcome; the first
# failure of each property is kept with its details (a sub, called then).
sub check {
    my ($prop, $i, $ok, $detail) = @_;
    $checked{$prop}++;
    if ($ok) {
        $passed{$prop}++;
    }
    elsif (!$failed_first{$prop}) {
        $failed_first{$prop} = "record $i (QelRandom->new($SEED, $i)): " . $detail->();
    }
}

# The protoc checks run per batch: one protoc run decodes the packed bytes
# of a whole batch and one encodes the texts of its debug_string.
my @queue;
my $queued_bytes = 0;
sub flush_protoc {
    return unless @queue;
    my ($texts, $derr) = protoc_decode_batch([ map { $_->{bytes} } @queue ]);
    my ($bytes, $eerr) = protoc_encode_batch([ map { $_->{text} } @queue ]);
    for my $k (0 .. $#queue) {
        my $q = $queue[$k];
        my $i = $q->{index};
        check('protoc_decode', $i, !defined $derr && $texts->[$k] eq $q->{debug}, sub {
            return $derr if defined $derr;
            "protoc's text and debug_string differ: " . difference($texts->[$k], $q->{debug})
                . "\n  bytes: " . clip(hexs($q->{bytes}), 2000)
                . "\n  protoc:\n" . clip($texts->[$k], 4000) . "\n  debug_string:\n" . clip($q->{debug}, 4000);
        });
        check('protoc_encode', $i, !defined $eerr && $bytes->[$k] eq $q->{packed}, sub {
            return $eerr if defined $eerr;
            "protoc's bytes and pack differ: " . difference($bytes->[$k], $q->{packed})
                . "\n  text:\n" . clip($q->{text}, 4000);
        });
    }
    @queue = ();
    $queued_bytes = 0;
}

my @warnings;
my $started = time;
for my $i (1 .. $N) {
    my $g = QelRandom->new($SEED, $i);
    my $h = $g->record;
    my $want = hash_key($h);
    my (%r, $u);
    # The module logs strings that are not UTF-8 on standard error: quiet.
    quietly {
        local $SIG{__WARN__} = sub { push @warnings, "record $i: $_[0]" };
        my $rec = $PKG->new($h);
        my $got = $rec->to_hashref;
        check('identity', $i, hash_key($got) eq $want, sub {
            "to_hashref differs from the hash:\n  got      " . clip(hash_text($got), 4000) . "\n  expected " . clip(hash_text($h), 4000);
        });

        my $packed = peer_bytes($rec);
        my $oracle = encode_ref($h);
        check('oracle', $i, $packed eq $oracle, sub { 'pack and encode_ref differ: ' . difference($packed, $oracle) });

        $u = $g->with_unknowns($packed);
        my $rec2 = $PKG->new($u->{wire});
        my $packed2 = peer_bytes($rec2);
        check('repack', $i, $packed2 eq $u->{repacked}, sub {
            'pack after new differs: ' . difference($packed2, $u->{repacked}) . "\n  wire bytes: " . clip(hexs($u->{wire}), 2000);
        });
        for my $bytes ($packed, $packed2) {
            my $again = peer_bytes($PKG->new($bytes));
            check('stable', $i, $again eq $bytes, sub {
                'pack, new, pack changes the bytes: ' . difference($again, $bytes) . "\n  bytes: " . clip(hexs($bytes), 2000);
            });
        }
        my $got2 = $rec2->to_hashref;
        check('hidden', $i, hash_key($got2) eq $want, sub {
            "to_hashref differs from the hash:\n  got      " . clip(hash_text($got2), 4000)
                . "\n  expected " . clip(hash_text($h), 4000) . "\n  wire bytes: " . clip(hexs($u->{wire}), 2000);
        });
        %r = (packed => $packed, packed2 => $packed2, debug => $rec2->debug_string, text => $rec->debug_string);
    };

    $stats{empty}++ unless %$h;
    $stats{full}++ if keys %$h == $ALL;
    $stats{unknown}++ if $u->{unknown};
    $stats{long}++ if $u->{long};
    $types[$_] += $u->{types}[$_] for 0 .. 5;
    $stats{bytes} += length $r{packed2};
    $stats{longest} = length $r{packed2} if length $r{packed2} > $stats{longest};

    unless (defined $protoc_skip) {
        push @queue, { index => $i, bytes => $r{packed2}, debug => $r{debug}, text => $r{text}, packed => $r{packed} };
        $queued_bytes += 2 * length($r{packed2}) + length($r{debug});
        flush_protoc() if @queue >= 1000 || $queued_bytes > 8_000_000;
    }

    unless (defined $peer_skip) {
        # The peer cannot skip unknown varints of 10 bytes (see t/81): such
        # records reach it without their unknown fields.
        my $bytes = $u->{long} ? $r{packed} : $r{packed2};
        my $decoded = eval { $PEER->decode($bytes) };
        my $err = $@;
        check('peer_decode', $i, defined $decoded && hash_key(peer_plain($decoded)) eq $want, sub {
            return "the peer dies: $err  bytes: " . clip(hexs($bytes), 2000) unless defined $decoded;
            "the peer's reading differs:\n  got      " . clip(hash_text(peer_plain($decoded)), 4000)
                . "\n  expected " . clip(hash_text($h), 4000) . "\n  bytes: " . clip(hexs($bytes), 2000);
        });
        my $theirs = eval { $PEER->encode($h) };
        $err = $@;
        check('peer_bytes', $i, defined $theirs && $theirs eq $r{packed}, sub {
            return "the peer dies: $err" unless defined $theirs;
            "the peer's bytes and pack differ: " . difference($theirs, $r{packed});
        });
        my $back = defined $theirs ? quietly { $PKG->new($theirs)->to_hashref } : undef;
        check('peer_encode', $i, defined $back && hash_key($back) eq $want, sub {
            return "the peer dies: $err" unless defined $theirs;
            "new reads the peer's bytes otherwise:\n  got      " . clip(hash_text($back), 4000)
                . "\n  expected " . clip(hash_text($h), 4000) . "\n  bytes: " . clip(hexs($theirs), 2000);
        });
    }
}
flush_protoc() unless defined $protoc_skip;

note sprintf '%d records in %d s: %d empty, %d with all %d fields, %d with unknown fields (%d of them with a '
    . '10-byte varint), %d bytes packed in all, the longest %d bytes',
    $N, time - $started, @stats{qw(empty full)}, $ALL, @stats{qw(unknown long bytes longest)};

for my $p (@PROPS) {
    my ($prop, $what) = @$p;
    SKIP: {
        skip "protoc: $protoc_skip", 2 if $prop =~ /^protoc/ && defined $protoc_skip;
        skip "the Perl peer: $peer_skip", 2 if $prop =~ /^peer/ && defined $peer_skip;
        my $n = $checked{$prop} // 0;
        my $per = $prop eq 'stable' ? ' (2 checks each)' : '';
        is $passed{$prop} // 0, $n, "$what: $N records$per, all pass"
            or diag(($n - ($passed{$prop} // 0)) . " failed; the first: $failed_first{$prop}");
        cmp_ok $n, '==', ($prop eq 'stable' ? 2 * $N : $N), "$prop: every record was checked";
    }
}
is scalar(@warnings), 0, 'no Perl warnings while checking' or diag join '', @warnings[0 .. ($#warnings < 9 ? $#warnings : 9)];
cmp_ok $stats{unknown}, '>', 0, "some records carried unknown fields ($stats{unknown})";
{
    my %name = (0 => 'varint', 1 => 'fixed64', 2 => 'length-delimited', 3 => 'group', 5 => 'fixed32');
    my $seen = join ', ', map { "$name{$_}: $types[$_]" } 0, 1, 2, 3, 5;
    is scalar(grep { $types[$_] } 0, 1, 2, 3, 5), 5, "unknown fields of every wire type were put in ($seen)";
    cmp_ok $stats{long}, '>', 0, "some of them held a 10-byte varint ($stats{long} records)";
}

diag $REPEAT unless Test::More->builder->is_passing;

done_testing;
