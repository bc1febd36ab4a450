#!/usr/bin/perl
# The hash form of a record, both ways: to_hashref, and the hash reader used
# by new(\%h), copy_from(\%h) and merge_from(\%h). Covers value forms,
# presence, leniency towards odd input, round trips and get-magic order.
use strict;
use warnings;
use Test::More;
use Scalar::Util qw(refaddr);
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS $ADDR_CLASS family_fields family_of field_names error_of
               usage_re $TYPE_RE is_string_sv is_int_sv ip_fields);

use quillon_event_log::QuillonEventLog;

my $IP     = $ADDR_CLASS;
my @STRING = family_fields('string');
my @FIELDS = $CLASS->fields;

# Everything observable through the accessors, has-bits included.
sub snapshot {
    my ($r) = @_;
    my %s;
    for my $f (@FIELDS) {
        my $fam = family_of($f);
        if ($fam eq 'list') {
            $s{$f} = [ $r->$f ];
        }
        elsif ($fam eq 'address') {
            my $has = "has_$f";
            $s{$f} = [ $r->$has, ip_fields($r->$f) ];
        }
        else {
            my $has = "has_$f";
            $s{$f} = [ $r->$has, $r->$f ];
        }
    }
    return \%s;
}

my $EMPTY_SNAPSHOT = snapshot($CLASS->new);

# The hash form of a record with every field set, some of them to their
# default values.
my %RICH_HASH = (
    (map { $_ => "s:$_" } @STRING),
    bot_name              => "bot\0name",
    reason                => '',
    host                  => "h\xe2\x98\xba.example",
    src_port              => 8080,
    dest_port             => 0,
    request_time          => 1700000000,
    previous_request_time => 4294967295,
    slot_number           => 3,
    device_id             => '18446744073709551615',
    session_id            => '0',
    support_id            => '1234567890123',
    previous_support_id   => '42',
    mobile_is_app         => 1,
    is_https_request      => 0,
    is_update_request     => 1,
    client_ip             => { ip0 => 10, ip1 => 20, ip2 => 30, ip3 => 40, rtdom_id => 1 },
    dest_ip               => { ip0 => 0, rtdom_id => 7 },
    anomaly_categories    => [ 'c1', '', 'c3' ],
    anomalies             => [ 'x' ],
);

# The same record built with the setters, without the hash reader: the
# addresses as IPAddr objects, the lists element by element, and host as the
# character string whose UTF-8 bytes %RICH_HASH holds.
sub rich_record {
    my $r = $CLASS->new;
    for my $f (grep { exists $RICH_HASH{$_} } field_names()) {
        my $v   = $RICH_HASH{$f};
        my $fam = family_of($f);
        if ($fam eq 'list') {
            my $add = "add_$f";
            $r->$add($_) for @$v;
        }
        else {
            my $set = "set_$f";
            $r->$set($fam eq 'address' ? $IP->new($v) : $v);
        }
    }
    $r->set_host("h\x{263a}.example");
    return $r;
}

# ===========================================================================
# to_hashref
# ===========================================================================
{
    my $h = $CLASS->new->to_hashref;
    is ref($h), 'HASH', 'to_hashref of a new record: a hash reference';
    is scalar(keys %$h), 0, 'to_hashref of a new record: no keys at all, not even for the lists';

    my $r = rich_record();
    my $before = snapshot($r);
    $h = $r->to_hashref;
    is_deeply $h, \%RICH_HASH, 'to_hashref of a record with every field set: the exact hash form';
    is scalar(keys %$h), 59, 'to_hashref of a full record: 59 keys';
    is_deeply snapshot($r), $before, 'to_hashref does not change the record';

    ok !utf8::is_utf8($h->{host}), 'to_hashref: a string holding UTF-8 bytes is a byte string';
    is length($h->{bot_name}), 8, 'to_hashref: a string with a NUL byte keeps its full length';
    ok is_string_sv($h->{device_id}), 'to_hashref: device_id (largest value) is a string scalar, not a number';
    ok is_string_sv($h->{session_id}), 'to_hashref: session_id 0 is the string scalar "0"';
    ok is_int_sv($h->{src_port}), 'to_hashref: a uint32 value is an integer scalar';
    ok is_int_sv($h->{previous_request_time}), 'to_hashref: uint32 4294967295 is an integer scalar';
    ok is_int_sv($h->{mobile_is_app}), 'to_hashref: a bool value is an integer scalar';
    ok is_int_sv($h->{client_ip}{ip0}), 'to_hashref: an address field is an integer scalar';
    ok !(grep { utf8::is_utf8($_) } @{ $h->{anomaly_categories} }), 'to_hashref: list elements are byte strings';
}

{
    my $r = $CLASS->new;
    $r->set_bot_name('');
    $r->set_mobile_is_app(0);
    $r->set_src_port(0);
    $r->set_device_id(0);
    is_deeply $r->to_hashref, { bot_name => '', mobile_is_app => 0, src_port => 0, device_id => '0' },
        'to_hashref: "" / false / 0 values are present';
    $r->clear_bot_name;
    $r->clear_device_id;
    is_deeply $r->to_hashref, { mobile_is_app => 0, src_port => 0 }, 'to_hashref: cleared fields have no key';

    $r = $CLASS->new;
    $r->set_profile_name("a\0b\0\0c");
    is $r->to_hashref->{profile_name}, "a\0b\0\0c", 'to_hashref: NUL bytes inside a string are kept';

    $r = $CLASS->new;
    $r->set_device_id('18446744073709551615');
    my $v = $r->to_hashref->{device_id};
    is $v, '18446744073709551615', 'to_hashref: device_id largest value as "18446744073709551615"';
    ok is_string_sv($v), 'to_hashref: device_id largest value is a string scalar';
    $r->set_device_id(0);
    $v = $r->to_hashref->{device_id};
    is $v, '0', 'to_hashref: device_id 0 as "0"';
    ok is_string_sv($v), 'to_hashref: device_id 0 is a string scalar';

    $r = $CLASS->new;
    $r->set_client_ip($IP->new({ ip0 => 1, rtdom_id => 9 }));
    is_deeply $r->to_hashref, { client_ip => { ip0 => 1, rtdom_id => 9 } },
        'to_hashref: client_ip with only ip0 and rtdom_id gives exactly those keys';
    $r = $CLASS->new;
    $r->set_client_ip($IP->new);
    is_deeply $r->to_hashref, { client_ip => {} }, 'to_hashref: an empty but present client_ip gives {}';
    $r->clear_client_ip;
    is_deeply $r->to_hashref, {}, 'to_hashref: a cleared client_ip has no key';
    my $ignored = $r->client_ip;
    is_deeply $r->to_hashref, {}, 'to_hashref: reading client_ip does not make it appear';

    $r = $CLASS->new;
    $r->add_anomalies($_) for 'a', '', 'c';
    is_deeply $r->to_hashref, { anomalies => [ 'a', '', 'c' ] }, 'to_hashref: anomalies with an empty middle element';
    $r->clear_anomalies;
    is_deeply $r->to_hashref, {}, 'to_hashref: a cleared list has no key';

    $r = $CLASS->new;
    $r->set_bot_name('orig');
    $r->set_client_ip($IP->new({ ip0 => 1 }));
    $r->add_anomalies('one');
    my $h1 = $r->to_hashref;
    my $h2 = $r->to_hashref;
    isnt refaddr($h1), refaddr($h2), 'to_hashref: a new hash on each call';
    isnt refaddr($h1->{client_ip}), refaddr($h2->{client_ip}), 'to_hashref: a new nested hash on each call';
    isnt refaddr($h1->{anomalies}), refaddr($h2->{anomalies}), 'to_hashref: a new array on each call';
    $h1->{bot_name} = 'changed';
    $h1->{client_ip}{ip0} = 99;
    $h1->{client_ip}{ip3} = 5;
    push @{ $h1->{anomalies} }, 'two';
    $h1->{new_key} = 1;
    is_deeply $h2, { bot_name => 'orig', client_ip => { ip0 => 1 }, anomalies => ['one'] },
        'to_hashref: changing one returned hash leaves an earlier one alone';
    is_deeply $r->to_hashref, { bot_name => 'orig', client_ip => { ip0 => 1 }, anomalies => ['one'] },
        'to_hashref: changing a returned hash does not change the record';
    $r->set_bot_name('later');
    is $h2->{bot_name}, 'orig', 'to_hashref: later changes of the record do not reach a returned hash';

    my $empty = bless \(my $zero = 0), $CLASS;
    my $none = $empty->to_hashref;
    ok !defined($none), 'to_hashref on an empty handle gives no defined value';

    my $err = error_of { $r->to_hashref(1) };
    like $err, usage_re('to_hashref', 'svTHIS'), 'to_hashref with an extra argument: usage error';
    $err = error_of { $CLASS->can('to_hashref')->(bless {}, 'Some::Other::Class') };
    like $err, $TYPE_RE, 'to_hashref on another class: type error';
}

# ===========================================================================
# The hash reader: new(\%h)
# ===========================================================================
sub from_hash {
    my ($h) = @_;
    # Conversion warnings for odd values are the interpreter's business.
    no warnings qw(numeric uninitialized);
    my $r = $CLASS->new($h);
    return $r;
}

{
    my $r = from_hash({});
    is_deeply snapshot($r), $EMPTY_SNAPSHOT, 'new({}): an empty record';
    is_deeply $r->to_hashref, {}, 'new({}): to_hashref is {}';

    my %unknown = (nothing => 1, BOT_NAME => 'x', 'bot_name ' => 'y', ip0 => 3);
    $r = from_hash(\%unknown);
    is_deeply snapshot($r), $EMPTY_SNAPSHOT, 'new with only unknown keys: an empty record';
    is_deeply [ sort keys %unknown ], [ sort('nothing', 'BOT_NAME', 'bot_name ', 'ip0') ],
        'new with only unknown keys: the caller\'s hash gets no new keys';

    $r = from_hash({ bot_name => '' });
    is $r->has_bot_name, 1, 'new: bot_name "" is present';
    is $r->bot_name, '', 'new: bot_name "" reads ""';
    {
        no warnings 'uninitialized';
        $r = from_hash({ bot_name => undef });
    }
    is $r->has_bot_name, 1, 'new: bot_name undef is present';
    is $r->bot_name, '', 'new: bot_name undef reads ""';
    is_deeply $r->to_hashref, { bot_name => '' }, 'new: bot_name undef gives exactly that field';

    $r = from_hash({ bot_name => "x\0y\0" });
    is $r->bot_name, "x\0y\0", 'new: NUL bytes inside a string are kept';
    $r = from_hash({ bot_name => "\x{263a}\x{e9}" });
    is $r->bot_name, "\xe2\x98\xba\xc3\xa9", 'new: a character string is stored as its UTF-8 bytes';
    ok !utf8::is_utf8($r->bot_name), 'new: and comes back as a byte string';
    $r = from_hash({ bot_name => "\xe9" });
    is $r->bot_name, "\xe9", 'new: a byte string is stored as its octets';
    $r = from_hash({ bot_name => 0.5, profile_name => 42 });
    is $r->bot_name, '0.5', 'new: a number given for a string field is stored as its string form';
    is $r->profile_name, '42', 'new: the number 42 is stored as "42"';

    my @u32 = (
        [ 70000,      70000,      'src_port 70000 is kept' ],
        [ 4294967296, 0,          'src_port 4294967296 wraps to 0' ],
        [ -1,         4294967295, 'src_port -1 wraps to 4294967295' ],
        [ '12abc',    12,         'src_port "12abc" is 12' ],
        [ 'abc',      0,          'src_port "abc" is 0' ],
        [ 3.7,        3,          'src_port 3.7 is 3' ],
    );
    for my $c (@u32) {
        no warnings 'numeric';
        $r = from_hash({ src_port => $c->[0] });
        is $r->src_port, $c->[1], "new: $c->[2]";
        is $r->has_src_port, 1, "new: $c->[2] (present)";
    }
    {
        no warnings 'uninitialized';
        $r = from_hash({ request_time => undef });
    }
    is_deeply $r->to_hashref, { request_time => 0 }, 'new: a uint32 field given as undef is present with 0';

    my @u64 = (
        [ '18446744073709551615', '18446744073709551615', 'device_id largest value' ],
        [ '0x10',                 '16',                   'device_id "0x10" is 16' ],
        [ '010',                  '8',                    'device_id "010" is 8' ],
        [ '-1',                   '18446744073709551615', 'device_id "-1" is 18446744073709551615' ],
        [ 'abc',                  '0',                    'device_id "abc" is 0' ],
        [ 1e20,                   '1',                    'device_id 1e20 is 1 (string form "1e+20")' ],
        [ '99999999999999999999', '18446744073709551615', 'device_id too large saturates' ],
        [ ' +5',                  '5',                    'device_id " +5" is 5' ],
    );
    for my $c (@u64) {
        $r = from_hash({ device_id => $c->[0] });
        is $r->device_id, $c->[1], "new: $c->[2]";
        is $r->has_device_id, 1, "new: $c->[2] (present)";
        my $hv = $r->to_hashref->{device_id};
        ok is_string_sv($hv), "new: $c->[2] (a string in to_hashref)";
    }

    my @bool = (
        [ 'true',  0, 'mobile_is_app "true" is false' ],
        [ 0.5,     0, 'mobile_is_app 0.5 is false' ],
        [ 2,       1, 'mobile_is_app 2 is true' ],
        [ -1,      1, 'mobile_is_app -1 is true' ],
        [ '1.5',   1, 'mobile_is_app "1.5" is true' ],
        [ '',      0, 'mobile_is_app "" is false' ],
        [ '0 but true', 0, 'mobile_is_app "0 but true" is false' ],
    );
    for my $c (@bool) {
        no warnings 'numeric';
        $r = from_hash({ mobile_is_app => $c->[0] });
        is $r->mobile_is_app, $c->[1], "new: $c->[2]";
        is $r->has_mobile_is_app, 1, "new: $c->[2] (present)";
    }

    # Address fields.
    $r = from_hash({ client_ip => {} });
    is $r->has_client_ip, 1, 'new: client_ip {} is present';
    is_deeply $r->to_hashref, { client_ip => {} }, 'new: client_ip {} is present and empty';
    {
        no warnings 'uninitialized';
        $r = from_hash({ client_ip => undef });
    }
    is $r->has_client_ip, 1, 'new: client_ip undef is present';
    is_deeply $r->to_hashref, { client_ip => {} }, 'new: client_ip undef is present and empty';
    for my $c ([ 'a string', '10.0.0.1' ], [ 'a number', 7 ], [ 'an array reference', [1, 2] ],
               [ 'an IPAddr object', $IP->new({ ip0 => 1 }) ]) {
        $r = from_hash({ dest_ip => $c->[1] });
        is_deeply $r->to_hashref, { dest_ip => {} }, "new: dest_ip given as $c->[0] is present and empty";
    }
    my %ci = (ip0 => 1, rtdom_id => 7, junk => 3);
    $r = from_hash({ client_ip => \%ci });
    is_deeply $r->to_hashref, { client_ip => { ip0 => 1, rtdom_id => 7 } },
        'new: client_ip {ip0, rtdom_id, junk} gives exactly ip0 and rtdom_id';
    is $r->client_ip->has_ip1, 0, 'new: client_ip ip1 stays absent';
    is $r->client_ip->has_ip3, 0, 'new: client_ip ip3 stays absent';
    {
        no warnings 'numeric';
        $r = from_hash({ dest_ip => { ip0 => 4294967296, ip1 => -1, ip2 => '80abc', ip3 => 0, rtdom_id => 3.7 } });
    }
    is_deeply $r->to_hashref, { dest_ip => { ip0 => 0, ip1 => 4294967295, ip2 => 80, ip3 => 0, rtdom_id => 3 } },
        'new: address values are converted as uint32 (wrap, truncate, 0 kept present)';
    $r = from_hash({ client_ip => bless({ ip2 => 5 }, 'Some::Hash::Class') });
    is_deeply $r->to_hashref, { client_ip => { ip2 => 5 } }, 'new: a blessed hash counts as an address hash';

    # Lists.
    {
        no warnings 'uninitialized';
        $r = from_hash({ anomalies => [ 'a', undef, 'c' ] });
    }
    is_deeply [ $r->anomalies ], [ 'a', '', 'c' ], 'new: anomalies ["a", undef, "c"] gives ("a", "", "c")';
    my @holey;
    $holey[0] = 'x';
    $holey[2] = 'z';
    $r = from_hash({ anomalies => \@holey });
    is_deeply [ $r->anomalies ], [ 'x', 'z' ], 'new: an array with a hole gives two elements';
    ok !exists $holey[1], 'new: the hole in the caller\'s array is not filled';
    is scalar(@holey), 3, 'new: the caller\'s array keeps its length';
    $r = from_hash({ anomalies => 'a,b' });
    is $r->anomalies_size, 0, 'new: anomalies as a plain string gives no elements';
    is_deeply $r->to_hashref, {}, 'new: anomalies as a plain string leaves no key';
    $r = from_hash({ anomalies => { a => 1 } });
    is $r->anomalies_size, 0, 'new: anomalies as a hash reference gives no elements';
    $r = from_hash({ anomalies => [] });
    is_deeply $r->to_hashref, {}, 'new: anomalies as an empty array gives no key';
    $r = from_hash({ anomaly_categories => bless([ 'p', 'q' ], 'Some::Array::Class') });
    is_deeply [ $r->anomaly_categories ], [ 'p', 'q' ], 'new: a blessed array counts as an array';
    $r = from_hash({ anomaly_categories => [ "n\0ul", "\x{263a}", 5 ] });
    is_deeply [ $r->anomaly_categories ], [ "n\0ul", "\xe2\x98\xba", '5' ],
        'new: list elements: NUL bytes kept, wide characters as UTF-8 bytes, numbers as text';

    # A blessed hash counts as a hash.
    $r = $CLASS->new(bless { bot_name => 'blessed', src_port => 5 }, 'Some::Hash::Class');
    is_deeply $r->to_hashref, { bot_name => 'blessed', src_port => 5 }, 'new: a blessed hash reference counts as a hash';

    # The caller's hash is only read.
    my %in = (
        bot_name  => 'b',
        client_ip => { ip0 => 1 },
        dest_ip   => {},
        anomalies => [ 'a' ],
    );
    my @keys_before = sort keys %in;
    my $r1 = $CLASS->new(\%in);
    my $r2 = $CLASS->new;
    $r2->copy_from(\%in);
    $r2->merge_from(\%in);
    is_deeply [ sort keys %in ], \@keys_before, 'new/copy_from/merge_from: the caller\'s hash gets no new keys';
    is_deeply [ sort keys %{ $in{client_ip} } ], ['ip0'], 'new/copy_from/merge_from: the nested hash gets no new keys';
    is_deeply [ keys %{ $in{dest_ip} } ], [], 'new/copy_from/merge_from: an empty nested hash stays empty';
    is_deeply $in{anomalies}, ['a'], 'new/copy_from/merge_from: the caller\'s array is unchanged';
}

# Wrong kinds of argument where a hash reference is expected.
{
    my @odd = (
        [ 'a plain string',     'abc' ],
        [ 'a number',           42 ],
        [ 'undef',              undef ],
        [ 'an array reference', [ 'bot_name', 'x' ] ],
        [ 'a record object',    rich_record() ],
        [ 'a scalar reference', \'bot_name' ],
        [ 'a code reference',   sub { 1 } ],
        [ 'an array object of another class', bless([ 'bot_name', 'x' ], 'Some::Other::Class') ],
    );
    for my $c (@odd) {
        my ($what, $arg) = @$c;
        my $r;
        {
            no warnings 'uninitialized';
            $r = $CLASS->new($arg);
        }
        if (ref($arg) eq 'ARRAY') {
            # new parses anything but a hash reference as wire bytes, so an
            # array reference is read as the text "ARRAY(0x...)": whatever
            # that gives depends on the address, but it is never a hash read.
            my $same = $CLASS->new("$arg");
            is_deeply snapshot($r), snapshot($same), "new with $what: read as its string form, not as a hash";
            is $r->has_bot_name, 0, "new with $what: nothing taken from the array";
            is $r->anomalies_size, 0, "new with $what: no list elements";
        }
        else {
            is_deeply snapshot($r), $EMPTY_SNAPSHOT, "new with $what: no field present";
            is_deeply $r->to_hashref, {}, "new with $what: to_hashref is {}";
        }

        # A record object is a valid source for copy_from and merge_from.
        next if ref($arg) eq $CLASS;
        for my $m (qw(copy_from merge_from)) {
            my $t = rich_record();
            my $bytes = $t->pack;
            my @ret = $t->$m($arg);
            is scalar(@ret), 0, "$m with $what returns nothing";
            is_deeply snapshot($t), snapshot(rich_record()), "$m with $what: record unchanged";
            is $t->pack, $bytes, "$m with $what: same bytes";
        }
    }
}

# copy_from and merge_from with a hash.
{
    my $r = rich_record();
    $r->copy_from({ bot_name => 'only', anomalies => [ 'n' ] });
    is_deeply $r->to_hashref, { bot_name => 'only', anomalies => ['n'] },
        'copy_from(\%h): fields not named in the hash become absent';

    $r->copy_from({});
    is_deeply snapshot($r), $EMPTY_SNAPSHOT, 'copy_from({}): the record becomes empty';

    $r = $CLASS->new;
    $r->set_bot_name('keep?');
    $r->set_profile_name('kept');
    $r->set_client_ip($IP->new({ ip0 => 1, ip1 => 2 }));
    $r->add_anomalies('first');
    $r->merge_from({ bot_name => 'replaced', client_ip => { ip1 => 5, rtdom_id => 9 }, anomalies => [ 'second' ],
                     src_port => 0 });
    is_deeply $r->to_hashref, {
        bot_name     => 'replaced',
        profile_name => 'kept',
        client_ip    => { ip0 => 1, ip1 => 5, rtdom_id => 9 },
        anomalies    => [ 'first', 'second' ],
        src_port     => 0,
    }, 'merge_from(\%h): named fields replaced, others kept, address merged field by field, lists appended';

    $r->merge_from({});
    is_deeply $r->to_hashref->{anomalies}, [ 'first', 'second' ], 'merge_from({}): nothing changes';
    $r->merge_from({ client_ip => undef });
    is_deeply $r->to_hashref->{client_ip}, { ip0 => 1, ip1 => 5, rtdom_id => 9 },
        'merge_from with client_ip undef: the address is kept as it is';
}

# ===========================================================================
# Round trips.
# ===========================================================================
{
    my $r = rich_record();
    my $want = snapshot($r);
    my $h = $r->to_hashref;

    my $n = $CLASS->new($h);
    is_deeply snapshot($n), $want, 'new(to_hashref): equal field by field, has-bits included';
    is $n->pack, $r->pack, 'new(to_hashref): identical wire bytes';
    is $n->length, $r->length, 'new(to_hashref): same encoded length';
    is_deeply $n->to_hashref, $h, 'new(to_hashref): the same hash form again';

    my $c = $CLASS->new;
    $c->set_mobile_imei('junk');
    $c->add_anomalies('junk');
    $c->set_dest_ip($IP->new({ ip3 => 3 }));
    $c->copy_from($h);
    is_deeply snapshot($c), $want, 'copy_from(to_hashref): equal field by field, has-bits included';
    is $c->pack, $r->pack, 'copy_from(to_hashref): identical wire bytes';

    my $m = $CLASS->new;
    $m->merge_from($h);
    is_deeply snapshot($m), $want, 'merge_from(to_hashref) into an empty record: equal field by field';

    my $x = $CLASS->new(\%RICH_HASH);
    is_deeply snapshot($x), $want, 'new with the hand-written hash form: equal to the record built by setters';
    is $x->pack, $r->pack, 'new with the hand-written hash form: identical wire bytes';

    my $e = $CLASS->new($CLASS->new->to_hashref);
    is_deeply snapshot($e), $EMPTY_SNAPSHOT, 'round trip of an empty record: still empty';
    is $e->length, 0, 'round trip of an empty record: length 0';

    my $d = $CLASS->new;
    $d->set_reason('');
    $d->set_slot_number(0);
    $d->set_session_id(0);
    $d->set_is_update_request(0);
    $d->set_dest_ip($IP->new);
    my $dd = $CLASS->new($d->to_hashref);
    is_deeply snapshot($dd), snapshot($d), 'round trip of default values set explicitly: has-bits kept';
    is $dd->pack, $d->pack, 'round trip of default values set explicitly: identical wire bytes';
}

# ===========================================================================
# Get-magic: each value fetched once, in field-table order.
# ===========================================================================
{
    package LoggingScalar;
    sub TIESCALAR { my ($class, $name, $value, $log) = @_; bless { name => $name, value => $value, log => $log }, $class }
    sub FETCH     { my $self = shift; push @{ $self->{log} }, $self->{name}; $self->{value} }
    sub STORE     { $_[0]{value} = $_[1] }
}

{
    my @values = (
        [ host          => 'h.example' ],
        [ mobile_is_app => 3 ],
        [ device_id     => '0x20' ],
        [ src_port      => 443 ],
        [ bot_name      => 'tied bot' ],
    );
    my %expect = (host => 'h.example', mobile_is_app => 1, device_id => '32', src_port => 443, bot_name => 'tied bot');

    for my $how (qw(new copy_from merge_from)) {
        my @log;
        my %h;
        tie $h{ $_->[0] }, 'LoggingScalar', $_->[0], $_->[1], \@log for @values;
        my $r;
        if ($how eq 'new') { $r = $CLASS->new(\%h) }
        else               { $r = $CLASS->new; $r->$how(\%h) }
        is_deeply \@log, [qw(bot_name src_port device_id mobile_is_app host)],
            "$how(\\%h): each tied value fetched exactly once, in field-table order";
        is_deeply $r->to_hashref, \%expect, "$how(\\%h): tied values stored as fetched";
    }

    my @log;
    my %h = (client_ip => {}, anomaly_categories => [], anomalies => []);
    tie $h{virtual_server_name}, 'LoggingScalar', 'virtual_server_name', 'vs', \@log;
    tie $h{request_uri}, 'LoggingScalar', 'request_uri', '/', \@log;
    tie $h{client_ip}{rtdom_id}, 'LoggingScalar', 'client_ip.rtdom_id', 4, \@log;
    tie $h{client_ip}{ip0}, 'LoggingScalar', 'client_ip.ip0', 1, \@log;
    tie $h{mobile_app_jailbroken_rooted}, 'LoggingScalar', 'mobile_app_jailbroken_rooted', 'no', \@log;
    tie $h{configured_mitigation_action}, 'LoggingScalar', 'configured_mitigation_action', 'block', \@log;
    tie $h{anomalies}[1], 'LoggingScalar', 'anomalies.1', 'a1', \@log;
    tie $h{anomalies}[0], 'LoggingScalar', 'anomalies.0', 'a0', \@log;
    tie $h{anomaly_categories}[0], 'LoggingScalar', 'anomaly_categories.0', 'c0', \@log;
    tie $h{http_protocol_info}, 'LoggingScalar', 'http_protocol_info', 'h2', \@log;
    my $r = $CLASS->new(\%h);
    is_deeply \@log, [qw(virtual_server_name client_ip.ip0 client_ip.rtdom_id request_uri
                         mobile_app_jailbroken_rooted anomaly_categories.0 anomalies.0 anomalies.1
                         configured_mitigation_action http_protocol_info)],
        'new(\%h): nested address read right after its key, lists at their place, elements in index order';
    is_deeply [ $r->anomalies ], [ 'a0', 'a1' ], 'new(\%h): tied list elements stored in order';
    is_deeply $r->client_ip->to_hashref, { ip0 => 1, rtdom_id => 4 }, 'new(\%h): tied address values stored';
}

# ---- tied and restricted hashes ----------------------------------------------------
# A tied hash is read through EXISTS and FETCH: keys it does not have stay
# absent, and its nested hashes and arrays are read as in a plain hash.  A
# restricted hash is read without dying on the keys it does not allow.  A
# tied element is fetched once, so a tied address or list value works too.
{
    require Tie::Hash;
    tie my %t, 'Tie::StdHash';
    %t = (bot_name => 'x', client_ip => { ip0 => 3 }, anomalies => ['a', 'b'], src_port => 7);
    is_deeply $CLASS->new(\%t)->to_hashref, { bot_name => 'x', client_ip => { ip0 => 3 }, anomalies => ['a', 'b'], src_port => 7 },
        'new(tied hash): exactly its keys, nested hash and array included';
    my $r = $CLASS->new({ host => 'h' });
    $r->merge_from(\%t);
    is_deeply [ sort keys %{ $r->to_hashref } ], [qw(anomalies bot_name client_ip host src_port)], 'merge_from(tied hash): its keys only';
    tie my %a, 'Tie::StdHash';
    %a = (ip1 => 9);
    is_deeply $ADDR_CLASS->new(\%a)->to_hashref, { ip1 => 9 }, 'IPAddr->new(tied hash): its keys only';

    require Hash::Util;
    my %locked = (bot_name => 'y', dest_ip => { ip0 => 1 });
    Hash::Util::lock_hashref(\%locked);
    is_deeply $CLASS->new(\%locked)->to_hashref, { bot_name => 'y', dest_ip => { ip0 => 1 } }, 'new(restricted hash): read without dying';
    my %la = (ip0 => 5);
    Hash::Util::lock_ref_keys(\%la);
    is_deeply $ADDR_CLASS->new(\%la)->to_hashref, { ip0 => 5 }, 'IPAddr->new(restricted hash): read without dying';

    # CountingScalar (QelTest) counts its FETCHes.
    my %h;
    my $addr = tie $h{client_ip}, 'CountingScalar', { ip2 => 4 };
    my $list = tie $h{anomalies}, 'CountingScalar', ['p'];
    my $name = tie $h{bot_name}, 'CountingScalar', 'n';
    is_deeply $CLASS->new(\%h)->to_hashref, { client_ip => { ip2 => 4 }, anomalies => ['p'], bot_name => 'n' },
        'new(\%h): tied elements holding a hash, an array and a string';
    is join(',', $addr->{fetches}, $list->{fetches}, $name->{fetches}), '1,1,1', '... each fetched once';
    my $whole = tie my $ts, 'CountingScalar', { host => 'from a tied argument' };
    is $CLASS->new($ts)->host, 'from a tied argument', 'new($tied): a tied hash reference is read as a hash';
    is $whole->{fetches}, 1, '... fetched once';
}

done_testing;