#!/usr/bin/perl
# The two address fields (client_ip, dest_ip), which cross into Perl as
# quillon_event_log::IPAddr objects, the IPAddr class itself, and the two
# repeated string fields (anomaly_categories, anomalies).
use strict;
use warnings;
use Test::More;
use Scalar::Util qw(refaddr);
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS $ADDR_CLASS family_fields address_fields error_of code_for at_re usage_re
               $TYPE_RE $EMPTY_RE $IP_TYPE_RE $IP_EMPTY_RE is_int_sv ip_fields
               empty_handle_ok);

use quillon_event_log::QuillonEventLog;

my $IP      = $ADDR_CLASS;
my @ADDRESS = family_fields('address');
my @LISTS   = family_fields('list');
my @IPF     = address_fields();

my $VAL_RE = at_re("VAL is not of type $IP");

# ===========================================================================
# The IPAddr class.
# ===========================================================================
{
    my $a = $IP->new;
    is ref($a), $IP, 'IPAddr->new returns an object of exactly that class';
    for my $f (@IPF) {
        my $has = "has_$f";
        is $a->$has, 0, "IPAddr new: has_$f is 0";
        is $a->$f, 0, "IPAddr new: $f is 0";
    }
    is_deeply $a->to_hashref, {}, 'IPAddr new: to_hashref is an empty hash';

    $a = $IP->new({ ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 5, junk => 9 });
    is_deeply ip_fields($a), { ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 5 },
        'IPAddr new from a hash sets all five fields';
    is_deeply $a->to_hashref, { ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 5 },
        'IPAddr to_hashref has the five fields and ignores unknown keys';

    $a = $IP->new({ ip0 => 0, rtdom_id => 7 });
    is_deeply $a->to_hashref, { ip0 => 0, rtdom_id => 7 },
        'IPAddr new from a partial hash: only the given keys are present, 0 included';
    is $a->has_ip1, 0, 'IPAddr new from a partial hash: missing key stays absent';

    my %h = (ip0 => 4294967296, ip1 => -1, ip2 => '80abc', ip3 => 3.7, rtdom_id => 4294967295);
    {
        no warnings 'numeric';
        $a = $IP->new(\%h);
    }
    is $a->ip0, 0, 'IPAddr new: ip0 4294967296 wraps to 0';
    is $a->has_ip0, 1, 'IPAddr new: wrapped value is present';
    is $a->ip1, 4294967295, 'IPAddr new: ip1 -1 wraps to 4294967295';
    is $a->ip2, 80, 'IPAddr new: ip2 "80abc" is 80';
    is $a->ip3, 3, 'IPAddr new: ip3 3.7 is 3';
    is $a->rtdom_id, 4294967295, 'IPAddr new: rtdom_id 4294967295 is kept';
    is_deeply [ sort keys %h ], [ sort qw(ip0 ip1 ip2 ip3 rtdom_id) ], 'IPAddr new: the caller\'s hash is unchanged';

    my $blessed = bless { ip3 => 11 }, 'Some::Hash::Class';
    is_deeply $IP->new($blessed)->to_hashref, { ip3 => 11 }, 'IPAddr new: a blessed hash counts as a hash';

    for my $c ([ 'a string', 'abc' ], [ 'a number', 42 ], [ 'an array reference', [1, 2] ],
               [ 'undef', undef ], [ 'another IPAddr', $IP->new({ ip0 => 1 }) ],
               [ 'a scalar reference', \"x" ]) {
        my ($what, $arg) = @$c;
        my $o = $IP->new($arg);
        is ref($o), $IP, "IPAddr new with $what: an object";
        is_deeply $o->to_hashref, {}, "IPAddr new with $what: an empty address";
    }

    my $o = $IP->new({ ip0 => 1 }, 'extra');
    is_deeply $o->to_hashref, {}, 'IPAddr new with three arguments: an empty address';
    $o = $IP->new({ ip0 => 1 }, 'extra', 'more');
    is_deeply $o->to_hashref, {}, 'IPAddr new with four arguments: an empty address';

    my $err = error_of { code_for('new', $IP)->() };
    like $err, usage_re('new', 'CLASS, ...', $IP), 'IPAddr new without arguments: usage error';
    $err = error_of { code_for('new', $IP)->('Foo') };
    like $err, at_re('invalid class Foo'), 'IPAddr new with another class name: invalid class';
    @My::IPAddr::ISA = ($IP);
    $err = error_of { My::IPAddr->new };
    like $err, at_re('invalid class My::IPAddr'), 'IPAddr new with a subclass name: invalid class';
    $err = error_of { code_for('new', $IP)->($CLASS) };
    like $err, at_re("invalid class $CLASS"), 'IPAddr new with the record class name: invalid class';

    # Field accessors, uint32 rules.
    for my $f (@IPF) {
        my ($has, $clear, $set) = ("has_$f", "clear_$f", "set_$f");
        my $x = $IP->new;
        my @ret = $x->$set(123456);
        is scalar(@ret), 0, "IPAddr $set returns nothing";
        is $x->$has, 1, "IPAddr $set: has_$f 1";
        is $x->$f, 123456, "IPAddr $set then $f";
        is_deeply $x->to_hashref, { $f => 123456 }, "IPAddr $set: only $f in to_hashref";
        @ret = $x->$clear;
        is scalar(@ret), 0, "IPAddr $clear returns nothing";
        is $x->$has, 0, "IPAddr $clear: has_$f 0";
        is $x->$f, 0, "IPAddr $clear: $f 0";
        $x->$set(0);
        is $x->$has, 1, "IPAddr $set(0): present";
        is $x->$f, 0, "IPAddr $set(0): reads 0";
        for my $c ([ 4294967296, 0, '4294967296 wraps to 0' ],
                   [ -1, 4294967295, '-1 wraps to 4294967295' ],
                   [ '80abc', 80, '"80abc" is 80' ],
                   [ 3.7, 3, '3.7 is 3' ],
                   [ 4294967295, 4294967295, '4294967295 is kept' ]) {
            no warnings 'numeric';
            $x->$set($c->[0]);
            is $x->$f, $c->[1], "IPAddr $set: $c->[2]";
        }
        my $got = $x->$f;
        ok is_int_sv($got), "IPAddr $f returns an integer scalar";
        my $hv = $x->to_hashref->{$f};
        ok is_int_sv($hv), "IPAddr to_hashref: $f is an integer scalar";
    }

    my $x = $IP->new({ ip0 => 1, ip1 => 2 });
    my $hr = $x->to_hashref;
    $hr->{ip0} = 99;
    $hr->{ip3} = 5;
    is_deeply ip_fields($x), { ip0 => 1, ip1 => 2 }, 'IPAddr to_hashref: changing the hash does not change the object';
    isnt refaddr($x->to_hashref), refaddr($x->to_hashref), 'IPAddr to_hashref: a new hash on each call';

    # Usage, type and empty-handle errors.
    for my $f (@IPF) {
        for my $c ([ "has_$f", 'svTHIS', 1 ], [ "clear_$f", 'svTHIS', 1 ],
                   [ $f, 'svTHIS', 1 ], [ "set_$f", 'svTHIS, svVAL', 2 ]) {
            my ($m, $usage, $n) = @$c;
            my @args = ($x, (1) x ($n - 1));
            $err = error_of { code_for($m, $IP)->(@args, 1) };
            like $err, usage_re($m, $usage, $IP), "IPAddr $m with one argument too many: usage error";
            $err = error_of { code_for($m, $IP)->(@args[0 .. $n - 2]) };
            like $err, usage_re($m, $usage, $IP), "IPAddr $m with one argument too few: usage error";
            for my $bad ([ 'an unblessed hash', {} ], [ 'a number', 42 ],
                         [ 'a record object', $CLASS->new ]) {
                $err = error_of { code_for($m, $IP)->($bad->[1], (1) x ($n - 1)) };
                like $err, $IP_TYPE_RE, "IPAddr $m on $bad->[0]: type error";
            }
        }
    }
    is_deeply ip_fields($x), { ip0 => 1, ip1 => 2 }, 'IPAddr: failed calls left the object unchanged';
    for my $m (qw(to_hashref DESTROY)) {
        $err = error_of { code_for($m, $IP)->($x, 1) };
        like $err, usage_re($m, 'svTHIS', $IP), "IPAddr $m with two arguments: usage error";
        $err = error_of { code_for($m, $IP)->() };
        like $err, usage_re($m, 'svTHIS', $IP), "IPAddr $m without arguments: usage error";
        $err = error_of { code_for($m, $IP)->(bless {}, 'Some::Other::Class') };
        like $err, $IP_TYPE_RE, "IPAddr $m on an object of another class: type error";
    }
    is_deeply ip_fields($x), { ip0 => 1, ip1 => 2 }, 'IPAddr: failed DESTROY calls left the object alive';

    # Tied VAL (CountingScalar, from QelTest): uint32 conversion happens
    # before the invocant check.
    tie my $tv, 'CountingScalar', 17;
    $err = error_of { code_for('set_ip0', $IP)->({}, $tv) };
    like $err, $IP_TYPE_RE, 'IPAddr set_ip0 on a wrong invocant: type error';
    is tied($tv)->{fetches}, 1, 'IPAddr set_ip0 fetches a tied VAL once before checking the invocant';
    $x->set_rtdom_id($tv);
    is $x->rtdom_id, 17, 'IPAddr set_rtdom_id stores a tied VAL';
    is tied($tv)->{fetches}, 2, 'IPAddr set_rtdom_id fetches a tied VAL exactly once';

    # Empty handle.
    my $z = bless \(my $zero = 0), $IP;
    empty_handle_ok($z, $_, 1, $IP_EMPTY_RE, 'IPAddr empty handle') for @IPF;
    my $th = $z->to_hashref;
    ok !defined($th), 'IPAddr empty handle: to_hashref returns undef';
    my @d = $z->DESTROY;
    is scalar(@d), 0, 'IPAddr empty handle: DESTROY does nothing and returns nothing';
    is $$z, 0, 'IPAddr empty handle: still empty after DESTROY';

    # Prototypes.
    is prototype("${IP}::new"), '$;@', 'IPAddr new has prototype $;@';
    is prototype("${IP}::to_hashref"), '$', 'IPAddr to_hashref has prototype $';
    is prototype("${IP}::DESTROY"), '$', 'IPAddr DESTROY has prototype $';
    for my $f (@IPF) {
        is prototype("${IP}::has_$f"), '$', "IPAddr has_$f has prototype \$";
        is prototype("${IP}::clear_$f"), '$', "IPAddr clear_$f has prototype \$";
        is prototype("${IP}::$f"), '$', "IPAddr $f has prototype \$";
        is prototype("${IP}::set_$f"), '$$', "IPAddr set_$f has prototype \$\$";
    }
}

# ===========================================================================
# client_ip and dest_ip.
# ===========================================================================
for my $f (@ADDRESS) {
    my ($has, $clear, $set) = ("has_$f", "clear_$f", "set_$f");
    my ($other_f) = grep { $_ ne $f } @ADDRESS;
    my $other_has = "has_$other_f";

    my $r = $CLASS->new;
    my @got = $r->$f;
    is scalar(@got), 1, "$f on a new record: one value";
    ok defined($got[0]), "$f on a new record: not undef";
    is ref($got[0]), $IP, "$f on a new record: a $IP object";
    is_deeply ip_fields($got[0]), {}, "$f on a new record: no field set";
    is_deeply $got[0]->to_hashref, {}, "$f on a new record: to_hashref is empty";
    is $r->$has, 0, "$f on a new record: has_$f stays 0 after the getter";

    my $ip = $IP->new({ ip0 => 10, ip1 => 20, ip2 => 30, ip3 => 40, rtdom_id => 2 });
    my @ret = $r->$set($ip);
    is scalar(@ret), 0, "$set returns nothing";
    is $r->$has, 1, "$set: has_$f 1";
    is $r->$other_has, 0, "$set: $other_f stays absent";
    is_deeply $r->$f->to_hashref, { ip0 => 10, ip1 => 20, ip2 => 30, ip3 => 40, rtdom_id => 2 },
        "$set then $f: same address";

    $ip->set_ip0(99);
    $ip->clear_rtdom_id;
    is_deeply $r->$f->to_hashref, { ip0 => 10, ip1 => 20, ip2 => 30, ip3 => 40, rtdom_id => 2 },
        "$set: changing the caller's object afterwards does not change the record";
    is_deeply $ip->to_hashref, { ip0 => 99, ip1 => 20, ip2 => 30, ip3 => 40 },
        "$set: the caller's object is not taken over";

    my $a1 = $r->$f;
    my $a2 = $r->$f;
    isnt refaddr($a1), refaddr($a2), "$f returns a new object on each call";
    isnt $$a1, $$a2, "$f: each returned object holds its own address";
    $a1->set_ip1(555);
    is $r->$f->ip1, 20, "$f: changing a returned object does not change the record";
    is $a2->ip1, 20, "$f: changing a returned object does not change another returned object";

    $r->$set($IP->new({ ip0 => 1 }));
    is_deeply $r->$f->to_hashref, { ip0 => 1 }, "$set replaces the whole address";
    is_deeply $a2->to_hashref, { ip0 => 10, ip1 => 20, ip2 => 30, ip3 => 40, rtdom_id => 2 },
        "$f: the record's later changes do not reach an earlier returned object";

    @ret = $r->$clear;
    is scalar(@ret), 0, "$clear returns nothing";
    is $r->$has, 0, "$clear: has_$f 0";
    is ref($r->$f), $IP, "$clear: getter still returns an object";
    is_deeply $r->$f->to_hashref, {}, "$clear: getter returns an empty address";

    $r->$set($IP->new);
    is $r->$has, 1, "$set with an empty-but-real address: present";
    is_deeply $r->$f->to_hashref, {}, "$set with an empty-but-real address: nothing inside";

    # Wrong kinds of VAL.
    $r->$set($IP->new({ ip2 => 3 }));
    my $before = $r->pack;
    for my $c ([ 'a plain hash reference', { ip0 => 1 } ],
               [ 'a string', '1.2.3.4' ],
               [ 'an object of another class', bless({ ip0 => 1 }, 'Some::Other::Class') ],
               [ 'a record object', $CLASS->new ],
               [ 'undef', undef ]) {
        my ($what, $val) = @$c;
        my $err = error_of { $r->$set($val) };
        like $err, $VAL_RE, "$set with $what: VAL is not of type $IP";
        is $r->pack, $before, "$set with $what: record unchanged";
    }
    my $err = error_of { code_for($set)->(bless({}, 'Some::Other::Class'), $IP->new) };
    like $err, $TYPE_RE, "$set on an object of another class: THIS type error first";

    # Empty IPAddr handle as VAL: no change at all.
    {
        my $z = bless \(my $zero = 0), $IP;
        $r->$set($z);
        is $r->pack, $before, "$set with an empty $IP handle: record unchanged";
        is_deeply $r->$f->to_hashref, { ip2 => 3 }, "$set with an empty $IP handle: address kept";
        my $fresh = $CLASS->new;
        $fresh->$set($z);
        is $fresh->$has, 0, "$set with an empty $IP handle on a new record: still absent";
    }

    # Subclass of IPAddr counts as IPAddr for the setter.
    {
        my $sub = $IP->new({ ip3 => 8 });
        bless $sub, 'My::IPAddr';
        $r->$set($sub);
        is_deeply $r->$f->to_hashref, { ip3 => 8 }, "$set accepts an object of a subclass of $IP";
        bless $sub, $IP;
    }

    # Usage errors.
    $err = error_of { code_for($f)->($r, 1) };
    like $err, usage_re($f, 'svTHIS'), "$f with two arguments: usage error";
    $err = error_of { code_for($set)->($r) };
    like $err, usage_re($set, 'svTHIS, svVAL'), "$set with one argument: usage error";
    $err = error_of { code_for($set)->($r, $IP->new, 1) };
    like $err, usage_re($set, 'svTHIS, svVAL'), "$set with three arguments: usage error";
    $err = error_of { code_for($has)->($r, 1) };
    like $err, usage_re($has, 'svTHIS'), "$has with two arguments: usage error";
    $err = error_of { code_for($clear)->($r, 1) };
    like $err, usage_re($clear, 'svTHIS'), "$clear with two arguments: usage error";

    # Empty record handle.
    my $empty = bless \(my $zero = 0), $CLASS;
    my @e = $empty->$f;
    is scalar(@e), 0, "$f on an empty record handle returns the empty list";
    $err = error_of { $empty->$set($IP->new) };
    like $err, $EMPTY_RE, "$set on an empty record handle dies";
    $err = error_of { $empty->$has };
    like $err, $EMPTY_RE, "$has on an empty record handle dies";

    is prototype("${CLASS}::$f"), '$', "$f has prototype \$";
    is prototype("${CLASS}::$set"), '$$', "$set has prototype \$\$";
}

# ===========================================================================
# anomaly_categories and anomalies.
# ===========================================================================
for my $f (@LISTS) {
    my ($size, $clear, $add) = ("${f}_size", "clear_$f", "add_$f");
    my ($other) = grep { $_ ne $f } @LISTS;
    my $other_size = "${other}_size";
    my $r = $CLASS->new;

    my @all = $r->$f;
    is scalar(@all), 0, "$f on a new record: empty list";
    is $r->$size, 0, "$size on a new record: 0";
    my $last = $r->$f;
    ok !defined($last), "$f in scalar context on an empty list: undef";
    my @one = $r->$f(0);
    is scalar(@one), 1, "$f(0) on an empty list returns one value";
    ok !defined($one[0]), "$f(0) on an empty list: undef";

    my @ret = $r->$add('a');
    is scalar(@ret), 0, "$add returns nothing";
    $r->$add('b');
    is_deeply [ $r->$f ], [ 'a', 'b' ], "$f returns all elements in order";
    is $r->$f(0), 'a', "$f(0) is the first element";
    is $r->$f(1), 'b', "$f(1) is the second element";
    @one = $r->$f(2);
    is scalar(@one), 1, "$f(2) returns one value";
    ok !defined($one[0]), "$f(2) past the end: undef";
    @one = $r->$f(-1);
    is scalar(@one), 1, "$f(-1) returns one value";
    ok !defined($one[0]), "$f(-1): undef (a negative index does not count from the end)";
    ok !defined(scalar $r->$f(-2)), "$f(-2): undef";
    is $r->$size, 2, "$size is 2";
    is $r->$other_size, 0, "$add does not touch $other";

    is $r->$f(4294967297), 'b', "$f(4294967297) is read as index 1";
    is $r->$f(4294967296), 'a', "$f(4294967296) is read as index 0";
    ok !defined(scalar $r->$f(4294967295)), "$f(4294967295) is read as -1: undef";
    ok !defined(scalar $r->$f(2147483648)), "$f(2147483648) is read as a negative index: undef";
    {
        no warnings 'numeric';
        is $r->$f('abc'), 'a', "$f with a non-numeric index reads element 0";
        is $r->$f('1abc'), 'b', "$f('1abc') reads element 1";
    }
    {
        no warnings 'uninitialized';
        is $r->$f(undef), 'a', "$f(undef) reads element 0";
    }
    is $r->$f(1.9), 'b', "$f(1.9) reads element 1";
    is $r->$f('1'), 'b', "$f('1') reads element 1";

    $last = $r->$f;
    is $last, 'b', "$f in scalar context: the last element";

    my $err = error_of { $r->$f(0, 1) };
    like $err, at_re("Usage: ${CLASS}::$f(CLASS, [index])"), "$f with two indexes: CLASS, [index] usage message";
    $err = error_of { code_for($f)->() };
    like $err, usage_re($f, 'svTHIS, ...'), "$f without arguments: usage error svTHIS, ...";
    $err = error_of { code_for($f)->(bless({}, 'Some::Other::Class'), 0, 1) };
    like $err, $TYPE_RE, "$f with two indexes on a wrong invocant: the type test comes first";
    $err = error_of { code_for($f)->({}) };
    like $err, $TYPE_RE, "$f on an unblessed hash: type error";
    $err = error_of { code_for($add)->($r) };
    like $err, usage_re($add, 'svTHIS, svVAL'), "$add with one argument: usage error";
    $err = error_of { code_for($add)->($r, 'x', 'y') };
    like $err, usage_re($add, 'svTHIS, svVAL'), "$add with three arguments: usage error";
    $err = error_of { code_for($size)->($r, 1) };
    like $err, usage_re($size, 'svTHIS'), "$size with two arguments: usage error";
    $err = error_of { code_for($clear)->($r, 1) };
    like $err, usage_re($clear, 'svTHIS'), "$clear with two arguments: usage error";
    is_deeply [ $r->$f ], [ 'a', 'b' ], "$f: failed calls left the list unchanged";

    my @copy = $r->$f;
    $copy[0] .= 'zzz';
    is $r->$f(0), 'a', "$f: changing a returned element does not change the record";

    @ret = $r->$clear;
    is scalar(@ret), 0, "$clear returns nothing";
    is $r->$size, 0, "$clear: size 0";
    is_deeply [ $r->$f ], [], "$clear: empty list";
    $r->$add('x');
    is_deeply [ $r->$f ], [ 'x' ], "$clear then $add('x'): exactly one element";
    is $r->$size, 1, "$clear then $add: size 1";

    $r->$clear;
    $r->$add("n\0ul");
    $r->$add('');
    $r->$add("\x{263a}");
    $r->$add(42);
    {
        no warnings 'uninitialized';
        $r->$add(undef);
    }
    my @els = $r->$f;
    is_deeply \@els, [ "n\0ul", '', "\xe2\x98\xba", '42', '' ],
        "$add: NUL bytes kept, empty element kept, wide characters as UTF-8 bytes, numbers as text, undef as ''";
    ok !(grep { utf8::is_utf8($_) } @els), "$f: elements come back without the UTF-8 flag";
    is $r->$size, 5, "$size counts empty elements";

    tie my $tv, 'CountingScalar', 'tied';
    $r->$add($tv);
    is tied($tv)->{fetches}, 1, "$add fetches a tied VAL exactly once";
    is $r->$f(5), 'tied', "$add stores the fetched value";

    my $empty = bless \(my $zero = 0), $CLASS;
    my @e = $empty->$f;
    is scalar(@e), 0, "$f on an empty record handle returns the empty list";
    @e = $empty->$f(0);
    is scalar(@e), 0, "$f(0) on an empty record handle returns the empty list";
    $err = error_of { $empty->$add('x') };
    like $err, $EMPTY_RE, "$add on an empty record handle dies";
    $err = error_of { $empty->$size };
    like $err, $EMPTY_RE, "$size on an empty record handle dies";

    is prototype("${CLASS}::$f"), '$;@', "$f has prototype \$;\@";
    is prototype("${CLASS}::$add"), '$$', "$add has prototype \$\$";
    is prototype("${CLASS}::$size"), '$', "$size has prototype \$";
    is prototype("${CLASS}::$clear"), '$', "$clear has prototype \$";
}

{
    my $r = $CLASS->new;
    $r->add_anomalies($_) for 1 .. 1000;
    is $r->anomalies_size, 1000, 'a list of 1000 elements';
    is_deeply [ $r->anomalies ], [ 1 .. 1000 ], 'all 1000 elements in order';
    is $r->anomalies(999), '1000', 'the last of 1000 elements by index';
}

# ===========================================================================
# Address objects returned by the getters are freed.
# ===========================================================================
{
    my $orig = \&quillon_event_log::IPAddr::DESTROY;
    my $destroyed = 0;
    {
        no warnings 'redefine';
        local *quillon_event_log::IPAddr::DESTROY = sub { $destroyed++; goto &$orig };
        my $r = $CLASS->new;
        $r->set_client_ip($IP->new({ ip0 => 1 }));
        is $destroyed, 1, 'the temporary IPAddr given to set_client_ip is destroyed';
        {
            my $c = $r->client_ip;
            my $d = $r->dest_ip;
            is $destroyed, 1, 'returned address objects live while referenced';
        }
        is $destroyed, 3, 'returned address objects are destroyed when they go out of scope';
        $r->client_ip for 1 .. 10;
        is $destroyed, 13, 'address objects returned in void context are destroyed';
    }

    SKIP: {
        skip 'no /proc/self/statm', 1 unless -r '/proc/self/statm';
        # valgrind and the address sanitizer hold freed memory back on purpose
        skip 'memory checker holds freed memory', 1
            if ($ENV{LD_PRELOAD} // '') =~ /vgpreload|asan/;
        my $rss = sub {
            open my $fh, '<', '/proc/self/statm' or return 0;
            my (undef, $res) = split ' ', scalar <$fh>;
            return $res * 4096;
        };
        my $r = $CLASS->new;
        $r->set_client_ip($IP->new({ ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 5 }));
        for (1 .. 20_000) { my $c = $r->client_ip; my $d = $IP->new({ ip0 => 1 }) }
        my $start = $rss->();
        for (1 .. 300_000) { my $c = $r->client_ip; my $d = $IP->new({ ip0 => 1 }) }
        my $grown = $rss->() - $start;
        cmp_ok $grown, '<', 4 * 1024 * 1024,
            '600000 address objects made and dropped: the process does not grow by their size';
    }

    SKIP: {
        skip 'Test::LeakTrace is not installed', 4 unless eval { require Test::LeakTrace; 1 };
        my $r = $CLASS->new;
        $r->set_client_ip($IP->new({ ip0 => 1, rtdom_id => 3 }));
        $r->add_anomalies('a');
        my @cases = (
            [ 'client_ip and dest_ip leak no scalars',
              sub { my $c = $r->client_ip; my $d = $r->dest_ip; } ],
            [ 'IPAddr new, set and to_hashref leak no scalars',
              sub { my $x = $IP->new({ ip0 => 1 }); $x->set_ip1(2); my $h = $x->to_hashref; } ],
            [ 'set_dest_ip with a returned address leaks no scalars',
              sub { my $n = $CLASS->new; $n->set_dest_ip($r->client_ip); } ],
            [ 'list getters leak no scalars',
              sub { my @l = $r->anomalies; my $one = $r->anomalies(0); my $u = $r->anomalies(9); } ],
        );
        for my $c (@cases) {
            my ($name, $code) = @$c;
            $code->();    # first call outside the trace: method caches and the like
            Test::LeakTrace::no_leaks_ok($code, $name);
        }
    }
}

done_testing;
