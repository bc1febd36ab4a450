#!/usr/bin/perl
# API fuzzer of quillon_event_log::QuillonEventLog and quillon_event_log::IPAddr:
# seeded random calls of every method with random invocants, argument counts
# and Perl values of every kind (handles the module did not make among them:
# copied integers, evaluated dumps, objects blessed across the classes,
# blessed hashes, shared clones), each outcome checked against the documented
# one, and a pool of objects whose invariants are checked along the way.
# Run from the top of the built tree: perl -Mblib xt/fuzz_calls.pl --seed 1 --count 100000

use strict;
use warnings;
no warnings qw(portable recursion);
use Cwd ();
my $HERE;
BEGIN { ($HERE = Cwd::abs_path(__FILE__)) =~ s{/[^/]*\z}{} }
use lib "$HERE/lib", "$HERE/../t/lib";
use Scalar::Util qw(blessed reftype refaddr);
use Hash::Util ();
use Tie::Hash ();
use QelTest qw($CLASS $ADDR_CLASS);
use Data::Dumper ();
use QelFuzz qw(seed_rng r64 rint chance pick rbytes canon parse_options finish_line
               record_problems FIELDS ADDR_FIELDS);
use quillon_event_log::QuillonEventLog;

my $USAGE = <<'END';
usage: perl -Mblib xt/fuzz_calls.pl [options]
  --seed N          seed of the calls (default 1); different seeds give
                    independent runs, so work can be split by seed
  --count N         number of method calls (default 10000)
  --max-bytes N     longest string argument (default 4194304)
  --max-problems N  stop after N problems (default 10)
  --trace           print each call before it is made (to find the call of
                    a crash; the same seed and count replay the same calls)
  --quiet           print only problems and the summary line
  --messages        print the distinct exception texts at the end
  --no-tied-hashes  give no tied hash as an argument (the hash form read from
                    a tied hash is checked by default)
  --no-reentrant    give no tied scalars whose FETCH calls methods on the
                    pool's records (DESTROY among them) in the middle of a
                    call (they are given by default)
Exit status 0 when every call ended as documented and every invariant held,
1 otherwise.
END

my $opt = parse_options({ count => 10000, 'tied-hashes' => 1, reentrant => 1 }, $USAGE, 'messages!', 'tied-hashes!', 'reentrant!');
$| = 1;
seed_rng($opt->{seed});

# ---- helper classes ------------------------------------------------------------

# shared_clone makes one of the forged handles (a copy without the mark)
# when this perl has threads (without threads loaded first it returns its
# argument itself).
my $SHARED_CLONE = eval {
    require Config;
    die "no threads\n" unless $Config::Config{useithreads};
    require threads;
    require threads::shared;
    \&threads::shared::shared_clone;
};

# The texts of handles that the module did not make.
my %FORGED = map { $_ => "THIS is not a $_ handle made by this module" } $CLASS, $ADDR_CLASS;
my $FORGED_SOURCE = "sv is not a $CLASS handle made by this module";
my $FORGED_VAL    = "VAL is not a $ADDR_CLASS handle made by this module";

# Subclasses: instance methods accept their objects, new refuses their names.
@QelFuzz::SubRecord::ISA = ($CLASS);
@QelFuzz::SubAddr::ISA   = ($ADDR_CLASS);

my $FETCH_DIED    = 'QelFuzz: tied FETCH died';
my $OVERLOAD_DIED = 'QelFuzz: overloaded conversion died';

{
    package QelFuzz::Other;    # objects of an unrelated class
    sub new { bless {}, shift }
}
{
    package QelFuzz::Scalar;    # a tied scalar with a plain value
    sub TIESCALAR { my ($c, $v) = @_; bless { v => $v }, $c }
    sub FETCH     { $_[0]{v} }
    sub STORE     { $_[0]{v} = $_[1] }
}
{
    package QelFuzz::DyingScalar;
    sub TIESCALAR { bless {}, shift }
    sub FETCH     { die $FETCH_DIED }
    sub STORE     { }
}
{
    package QelFuzz::DyingHash;    # a tied hash whose values cannot be read
    our @ISA = ('Tie::StdHash');
    sub FETCH { die $FETCH_DIED }
}
{
    package QelFuzz::Reentrant;    # a tied scalar whose FETCH works on the pool
    sub TIESCALAR { my ($c, $v, $action) = @_; bless { v => $v, action => $action }, $c }
    sub FETCH     { $_[0]{action}->(); $_[0]{v} }
    sub STORE     { $_[0]{v} = $_[1] }
}
{
    package QelFuzz::Overloaded;
    use overload '""' => sub { ${ $_[0] } }, '0+' => sub { length ${ $_[0] } }, fallback => 1;
}
{
    package QelFuzz::DyingOverload;
    use overload
        '""'   => sub { die $OVERLOAD_DIED },
        '0+'   => sub { die $OVERLOAD_DIED },
        'bool' => sub { 1 },
        fallback => 0;
}

# ---- the methods ---------------------------------------------------------------

my @FIELDS = FIELDS();
my @ADDR = map { $_->{name} } ADDR_FIELDS();
my %FIELD = map { $_->{name} => $_ } @FIELDS;
my @NAMES = map { $_->{name} } @FIELDS;

# Each method: class, name, op (what it does) and, for field methods, the
# field and its family; usage is the text of its usage error and argc the
# argument count it takes (-1: one or more).
my @METHODS;
sub method { push @METHODS, {@_} }
method(class => $CLASS, name => 'new', op => 'new', usage => 'CLASS, ...', argc => -1);
method(class => $CLASS, name => $_->[0], op => $_->[0], usage => $_->[1], argc => $_->[2]) for
    [DESTROY => 'svTHIS', 1], [copy_from => 'svTHIS, sv', 2], [merge_from => 'svTHIS, sv', 2],
    [clear => 'svTHIS', 1], [is_initialized => 'svTHIS', 1], [error_string => 'svTHIS', 1],
    [discard_unkown_fields => 'svTHIS', 1], [debug_string => 'svTHIS', 1],
    [short_debug_string => 'svTHIS', 1], [unpack => 'svTHIS, arg', 2], [pack => 'svTHIS', 1],
    [length => 'svTHIS', 1], [fields => 'svTHIS', 1], [to_hashref => 'svTHIS', 1];
for my $f (@FIELDS) {
    my ($n, $k) = @$f{qw(name kind)};
    my %common = (class => $CLASS, field => $n, kind => $k);
    if ($k eq 'list') {
        method(%common, name => "${n}_size", op => 'size',  usage => 'svTHIS', argc => 1);
        method(%common, name => "clear_$n",  op => 'fclear',usage => 'svTHIS', argc => 1);
        method(%common, name => $n,          op => 'lget',  usage => 'svTHIS, ...', argc => -1);
        method(%common, name => "add_$n",    op => 'add',   usage => 'svTHIS, svVAL', argc => 2);
    }
    else {
        method(%common, name => "has_$n",   op => 'has',   usage => 'svTHIS', argc => 1);
        method(%common, name => "clear_$n", op => 'fclear',usage => 'svTHIS', argc => 1);
        method(%common, name => $n,         op => 'get',   usage => 'svTHIS', argc => 1);
        method(%common, name => "set_$n",   op => 'set',   usage => 'svTHIS, svVAL', argc => 2);
    }
}
my $RECORD_METHODS = @METHODS;
method(class => $ADDR_CLASS, name => 'new', op => 'new', usage => 'CLASS, ...', argc => -1);
method(class => $ADDR_CLASS, name => 'DESTROY', op => 'DESTROY', usage => 'svTHIS', argc => 1);
method(class => $ADDR_CLASS, name => 'to_hashref', op => 'to_hashref', usage => 'svTHIS', argc => 1);
for my $n (@ADDR) {
    my %common = (class => $ADDR_CLASS, field => $n, kind => 'uint32');
    method(%common, name => "has_$n",   op => 'has',   usage => 'svTHIS', argc => 1);
    method(%common, name => "clear_$n", op => 'fclear',usage => 'svTHIS', argc => 1);
    method(%common, name => $n,         op => 'get',   usage => 'svTHIS', argc => 1);
    method(%common, name => "set_$n",   op => 'set',   usage => 'svTHIS, svVAL', argc => 2);
}
for my $m (@METHODS) {
    no strict 'refs';
    $m->{code} = \&{"$m->{class}::$m->{name}"};
    die "$m->{class}::$m->{name} is not defined\n" unless defined &{"$m->{class}::$m->{name}"};
}
die "expected 251 record methods, made $RECORD_METHODS\n" unless $RECORD_METHODS == 251;

# ---- values --------------------------------------------------------------------
#
# A value is [\$sv, \%info]: the reference lets a call pass the scalar itself
# (a tied scalar, $1 or a substr lvalue keeps its magic). The info says what
# the module may do with it:
#   desc   how to print it
#   dies   converting it to a string or number dies (with what text)
#   magic  it is tied or magical: its flags say nothing until it is read
#   hash   a hash reference; read: how reading it ends (see finish_hash)
#   plain  a plain scalar whose "$v" is what the module reads

my @POOL;        # the objects calls work on: [\$obj] slots
my %PARTIAL;     # refaddr of a record's handle => it came from a failed parse

my @WORDS = ('', 'curl', 'block', "a\0b", "\xff\xfe", "\x{263A}x", '0', '1', '-1', '0x10', '010', ' 3',
             '0 but true', '0E0', '12abc', 'abc', '99999999999999999999', '18446744073709551615',
             '4294967297', '1e19', '3.9', 'NaN', 'inf', "\n", $CLASS, $ADDR_CLASS);

sub V { my ($v, %info) = @_; return [\$v, { plain => 1, desc => _desc($v), %info }] }

sub _desc {
    my $v = shift;
    return 'undef' unless defined $v;
    return ref($v) . ' ref' if ref $v;
    my $s = length $v > 24 ? substr($v, 0, 24) . '...(' . length($v) . ')' : $v;
    $s =~ s/([^\x20-\x7e])/sprintf(ord $1 > 255 ? '\\x{%x}' : '\\x%02x', ord $1)/ge;
    return "'$s'";
}

sub number {
    my $k = rint(12);
    return pick(0, 1, 2, 127, 128, 255, 65535, 4294967295, 4294967296, 4294967297) if $k <= 2;
    return pick(18446744073709551615, 9223372036854775807, 2**63, 2**64, 1e20, 1e300) if $k == 3;
    return pick(-1, -2, -4294967296, -9223372036854775807 - 1, -1e300)             if $k == 4;
    return pick(3.9, 0.5, -0.5, 1e-300, 0.1, 2**53 + 1)                            if $k == 5;
    return pick(9**9**9, -9**9**9, (9**9**9) / (9**9**9))                          if $k == 6;
    return rint(1000) if $k <= 8;
    return (r64() >> rint(64));
}

sub string_value {
    my $k = rint(10);
    return pick(@WORDS) if $k <= 4;
    return rbytes(rint(30)) if $k == 5;
    if ($k == 6) { my $s = join '', map { chr(0x100 + rint(0x2000)) } 1 .. 1 + rint(6); return $s }
    if ($k == 7) { my $s = "\xe9t\xe9"; utf8::upgrade($s); return $s }
    return 'x' x (1 + rint(300)) if $k == 8;
    return 'L' x ($opt->{'max-bytes'} < 1_000_000 ? $opt->{'max-bytes'} : 1_000_000) if chance(50);
    return 'word' . rint(100);
}

# Wire bytes: a valid encoding, a cut one, random bytes, or the empty record's
# 16 zero bytes.
sub wire_bytes {
    my $k = rint(6);
    return $CLASS->new(random_hash_form(0))->pack if $k <= 2;
    if ($k == 3) { my $b = $CLASS->new(random_hash_form(0))->pack; return substr $b, 0, rint(length($b) + 1) }
    return "\0" x 16 if $k == 4;
    return rbytes(rint(40));
}

# A hash in the hash form made of plain values only.
sub random_hash_form {
    my $depth = shift;
    my %h;
    for (1 .. rint(8)) {
        my $f = pick(@FIELDS);
        my $k = $f->{kind};
        $h{ $f->{name} } = $k eq 'string' ? string_value()
                         : $k eq 'uint32' || $k eq 'bool' ? number()
                         : $k eq 'uint64' ? pick(number(), '' . number(), pick(@WORDS))
                         : $k eq 'address' ? { map { $_ => number() } grep { chance(2) } @ADDR }
                         : [ map { string_value() } 0 .. rint(4) ];
    }
    return \%h;
}

# A hash argument: the hash form with values of every kind, tied elements,
# holes in the arrays, unknown keys; sometimes blessed, tied as a whole or
# restricted.
sub hash_arg {
    my $depth = shift || 0;
    # A tied hash is filled through its storage, so tied elements stay tied.
    my $kind = rint(20);
    $kind = 9 if $kind <= 1 && !$opt->{'tied-hashes'};
    my (%t, %h);
    my $store = $kind == 0 ? tie(%t, 'Tie::StdHash') : $kind == 1 ? tie(%t, 'QelFuzz::DyingHash') : \%h;
    # How reading each field's value ends (undef: it returns, else the
    # text it dies of); a key set twice keeps the last value.
    my %kf;
    my $n = pick(0, 1, 2, 4, 8, 20, 59);
    for (1 .. $n) {
        my $f = pick(@FIELDS);
        my ($name, $k) = @$f{qw(name kind)};
        delete $store->{$name};    # unties an element tied before
        my ($d, $v);
        my $c = rint(10);
        if ($k eq 'address' && $c < 6) {
            my %a;
            for my $an (@ADDR) {
                next unless chance(2);
                my $x = $depth < 2 && chance(4) ? any_value($depth + 1) : V(number());
                if ($x->[1]{magic}) { tie_like(\$a{$an}, $x) } else { $a{$an} = ${ $x->[0] } }
                $d //= $x->[1]{dies};    # address keys are read in this order
            }
            $v = chance(10) ? bless(\%a, 'QelFuzz::Other') : \%a;
        }
        elsif ($k eq 'list' && $c < 6) {
            my @a;
            for my $i (0 .. rint(5)) {
                next if chance(6);    # a hole
                my $x = $depth < 2 && chance(4) ? any_value($depth + 1) : V(string_value());
                if ($x->[1]{magic}) { tie_like(\$a[$i], $x) } else { $a[$i] = ${ $x->[0] } }
                $d //= $x->[1]{dies};
            }
            $#a += rint(3);    # trailing holes
            $v = chance(10) ? bless(\@a, 'QelFuzz::Other') : \@a;
        }
        else {
            # Any value: converted for the scalar families, read as a hash
            # for an address, looked at only when an array for a list.
            my $x = $depth < 2 ? any_value($depth + 1) : V(string_value());
            my $scalar = $k ne 'address' && $k ne 'list';
            if ($x->[1]{magic}) {
                # A tied value is fetched once whatever the field's family.
                tie_like(\$store->{$name}, $x);
                $kf{$name} = $x->[1]{dies};
                next;
            }
            $v = ${ $x->[0] };
            if ($scalar) { $d = $x->[1]{dies} }
            elsif ($k eq 'address' && $x->[1]{hash}) { $d = $x->[1]{read}{address} || undef }
        }
        $store->{$name} = $v;
        $kf{$name} = $d;
    }
    $store->{ 'unknown' . rint(5) } = 'x' if chance(3);
    return finish_hash($kind, \%t, \%h, { record => \%kf, address => {} }, 'hash');
}

# finish_hash($kind, \%tied, \%plain, \%ends, $desc): the hash argument of
# the kind drawn (0: tied, 1: tied and its FETCH dies, 2: restricted, 3:
# blessed, else plain), with how reading it ends when read as a record and
# as an address (read => {record => $end, address => $end}, each '' for a
# return or the text of the first failure in reading order). %ends holds,
# per view, how reading the value of each key ends.
sub finish_hash {
    my ($kind, $t, $h, $ends, $desc) = @_;
    my $hash = $kind <= 1 ? tied %$t : $h;
    Hash::Util::lock_keys(%$h) if $kind == 2;
    my %read;
    for my $view ('record', 'address') {
        my $end = '';
        for my $key ($view eq 'record' ? @NAMES : @ADDR) {
            if (exists $hash->{$key}) {
                # A tied hash's FETCH runs for every key that exists.
                $end = $kind == 1 ? $FETCH_DIED : $ends->{$view}{$key} // '';
            }
            last if $end ne '';
        }
        $read{$view} = $end;
    }
    my %info = (hash => 1, plain => 0, read => \%read);
    $info{desc} = $kind == 0 ? "tied $desc" : $kind == 1 ? "tied $desc (FETCH dies)"
                : $kind == 2 ? "restricted $desc" : $kind == 3 ? "blessed $desc" : $desc;
    return [\$t, \%info] if $kind <= 1;
    return [\($kind == 3 ? bless($h, 'QelFuzz::Other') : $h), \%info];
}

# addr_hash_arg(): an address hash argument: address keys with values of
# every kind, tied elements, an unknown key; tied, restricted or blessed too.
sub addr_hash_arg {
    my $kind = rint(12);
    $kind = 9 if $kind <= 1 && !$opt->{'tied-hashes'};
    my (%t, %h);
    my $store = $kind == 0 ? tie(%t, 'Tie::StdHash') : $kind == 1 ? tie(%t, 'QelFuzz::DyingHash') : \%h;
    my %ends;
    for my $an (@ADDR) {
        next unless chance(2);
        my $x = chance(4) ? any_value(2) : V(number());
        if ($x->[1]{magic}) { tie_like(\$store->{$an}, $x) } else { $store->{$an} = ${ $x->[0] } }
        $ends{$an} = $x->[1]{dies};
    }
    $store->{other} = 1 if chance(3);
    return finish_hash($kind, \%t, \%h, { record => {}, address => \%ends }, 'address hash');
}

# tie_like(\$slot, $value): ties $slot the way the magical value $value is
# tied (only tied values go into hashes and arrays; $1 and substr are plain
# there).
sub tie_like {
    my ($slot, $x) = @_;
    if ($x->[1]{dies}) { tie $$slot, 'QelFuzz::DyingScalar' }
    elsif ($x->[1]{reentrant}) { tie $$slot, 'QelFuzz::Reentrant', pick(number(), string_value()), reentry() }
    else { tie $$slot, 'QelFuzz::Scalar', pick(number(), string_value()) }
}

# reentry(): what a re-entrant FETCH does: one call on one of the pool's
# records (which may be the record the interrupted call works on).
my $REENTERED = 0;
my $CALL_THIS;    # the invocant of the call being made, when a live record
sub reentry {
    my $slot = rint(16);
    my $what = rint(8);
    my $this = chance(2);
    my $bytes = wire_bytes();
    return sub {
        $REENTERED++;
        my $r = $this && $CALL_THIS ? $CALL_THIS : ${ $POOL[$slot] };
        return unless blessed $r && $r->isa($CLASS) && $$r;
        $what == 0 ? $r->clear
      : $what == 1 ? $r->set_host('reentered')
      : $what == 2 ? $r->add_anomalies('reentered')
      : $what == 3 ? $r->unpack($bytes)
      : $what == 4 ? $r->clear_client_ip
      : $what == 7 ? do { my @fill = map { $CLASS->new } 1 .. 16; @fill = (); $r->DESTROY }
      : $r->DESTROY;    # (7: after filling the module's pool of freed records,
                        # so that the record is deleted rather than kept)
    };
}

my $MATCH_TEXT = '';

# any_value([$depth]): a random Perl value of any kind.
sub any_value {
    my $depth = shift || 0;
    my $k = rint(40);
    return V(undef)                                 if $k == 0;
    return V(number())                              if $k <= 5;
    return V(string_value())                        if $k <= 11;
    return V(wire_bytes())                          if $k == 12;
    return $depth < 2 ? hash_arg($depth) : V({})    if $k <= 15;
    return V([ 1, 'a' ])                            if $k == 16;
    return V(sub { 1 })                             if $k == 17;
    return V(\'scalar')                             if $k == 18;
    return V(\\'ref to ref')                        if $k == 19;
    return V(\*STDOUT)                              if $k == 20;
    return V(qr/x/)                                 if $k == 21;
    return V(QelFuzz::Other->new)                   if $k == 22;
    return V(bless \(my $x = 12345), 'QelFuzz::Other') if $k == 23;
    return [\bless(\(my $s = string_value()), 'QelFuzz::Overloaded'), { desc => 'overloaded object' }] if $k == 24;
    return [\bless(\(my $d = 1), 'QelFuzz::DyingOverload'), { desc => 'object whose conversion dies', dies => $OVERLOAD_DIED }] if $k == 25;
    return forged_value(pick($CLASS, $ADDR_CLASS))   if $k == 26 && chance(2);
    return pool_value()                             if $k <= 30;
    return record_value()                           if $k == 31;
    return address_value()                          if $k == 32;
    if ($k == 33) {
        tie my $t, 'QelFuzz::Scalar', pick(number(), string_value());
        return [\$t, { desc => 'tied scalar', magic => 1 }];
    }
    if ($k == 34 && $opt->{reentrant} && chance(2)) {
        tie my $t, 'QelFuzz::Reentrant', pick(number(), string_value()), reentry();
        return [\$t, { desc => 're-entrant tied scalar', magic => 1, reentrant => 1 }];
    }
    if ($k == 34) {
        tie my $t, 'QelFuzz::DyingScalar';
        return [\$t, { desc => 'tied scalar (FETCH dies)', magic => 1, dies => $FETCH_DIED }];
    }
    if ($k == 35) {
        $MATCH_TEXT = string_value();
        return [\$1, { desc => '$1', magic => 1, match => 1 }];
    }
    if ($k == 36) {
        my $s = string_value();
        my $from = rint(length($s) + 1);
        return [\substr($s, $from, rint(5)), { desc => 'substr lvalue', magic => 1 }];
    }
    return V(pick($CLASS, $ADDR_CLASS, 'QelFuzz::SubRecord', 'main', ''));
}

# record_value(): a record object of any state: live, live in a subclass,
# destroyed (its handle is 0) or blessed by hand around 0.
sub record_value {
    my $k = rint(8);
    my $r = $CLASS->new(chance(2) ? random_hash_form(0) : ());
    return V($r, plain => 0, desc => 'record') if $k <= 1 || $k >= 6;
    return V(bless($r, 'QelFuzz::SubRecord'), plain => 0, desc => 'subclass record') if $k == 2;
    if ($k == 3) { $r->DESTROY; return V($r, plain => 0, desc => 'destroyed record') }
    return V(bless(\(my $z = 0), pick($CLASS, 'QelFuzz::SubRecord')), plain => 0, desc => 'record blessed around 0');
}

# address_value(): an address object: new, from a record's getter, in a
# subclass, destroyed, or blessed by hand around 0.
sub address_value {
    my $k = rint(7);
    my $a = $ADDR_CLASS->new({ map { $_ => number() } grep { chance(2) } @ADDR });
    return V($a, plain => 0, desc => 'address') if $k <= 1;
    return V($CLASS->new({ client_ip => { ip0 => 1, rtdom_id => number() } })->client_ip, plain => 0, desc => 'address from a getter') if $k == 2;
    return V(bless($a, 'QelFuzz::SubAddr'), plain => 0, desc => 'subclass address') if $k == 3;
    if ($k == 4) { $a->DESTROY; return V($a, plain => 0, desc => 'destroyed address') }
    return V(bless(\(my $z = 0), pick($ADDR_CLASS, 'QelFuzz::SubAddr')), plain => 0, desc => 'address blessed around 0');
}

# forged_value($class): a handle of $class (or of its subclass) that the
# module did not make, as Perl code can make one: the integer of a live
# object copied into a new blessed scalar, an object dumped by Data::Dumper
# and evaluated back, an object of the other class blessed into $class (for
# the record class also an address from a getter), a blessed hash, array,
# code ref or glob, a blessed scalar holding anything but plain 0, or a
# shared_clone. Every method croaks on it with the class's text.
my @NOT_ZERO = (1.5, -1, 1, 'abc', '', '0.0', '00', ' 0', '0 but true', undef, 9**9**9);
sub forged_value {
    my $class = shift;
    my $into = chance(4) ? ($class eq $CLASS ? 'QelFuzz::SubRecord' : 'QelFuzz::SubAddr') : $class;
    my $other = $class eq $CLASS ? $ADDR_CLASS : $CLASS;
    my @live = grep { my $v = ${ $POOL[$_] }; blessed $v && $v->isa($class) && $$v } 0 .. $#POOL;
    my $real = @live ? ${ $POOL[ pick(@live) ] } : $class->new;
    my $k = rint($SHARED_CLONE ? 9 : 8);
    my ($v, $how);
    if ($k == 0) { $v = bless \(my $i = ${$real}), $into; $how = 'copied integer' }
    elsif ($k == 1) {
        my $VAR1;
        $v = eval(Data::Dumper->new([$real], ['VAR1'])->Dump . '; $VAR1') or die "evaluating a dump: $@";
        bless $v, $into;
        $how = 'dumped and evaluated';
    }
    elsif ($k == 2) {
        $v = $class eq $CLASS && chance(2) ? bless($CLASS->new(random_hash_form(0))->client_ip, $into) : bless($other->new, $into);
        $how = 'object of the other class';
    }
    elsif ($k == 3) { $v = bless {}, $into; $how = 'blessed hash' }
    elsif ($k == 4) { $v = bless [], $into; $how = 'blessed array' }
    elsif ($k == 5) { $v = bless sub { 0 }, $into; $how = 'blessed code ref' }
    elsif ($k == 6) { no warnings 'once'; $v = bless \*QelFuzz::GLOB, $into; $how = 'blessed glob' }
    elsif ($k == 7) { my $x = pick(@NOT_ZERO); $v = bless \$x, $into; $how = 'blessed ' . _desc($x) }
    else { $v = bless $SHARED_CLONE->($real), $into; $how = 'shared_clone' }
    return V($v, plain => 0, forged => 1, desc => "forged $into ($how)");
}

# pool_value(): one of the pool's objects, as the pool's own scalar;
# pool_record() and pool_address(): one of its record or address slots (the
# first 16 slots hold records of any state, the last 4 addresses).
sub pool_value {
    my $i = rint(scalar @POOL);
    return [$POOL[$i], { desc => "pool[$i]", plain => 0 }];
}

sub pool_record {
    my $i = rint(16);
    return [$POOL[$i], { desc => "pool[$i]", plain => 0 }];
}

sub pool_address {
    my $i = 16 + rint(4);
    return [$POOL[$i], { desc => "pool[$i]", plain => 0 }];
}

# value_for($method, $position): an argument fit for the method most of the
# time, any value otherwise.
sub value_for {
    my ($m) = @_;
    if ($opt->{reentrant} && chance(10)) {
        tie my $t, 'QelFuzz::Reentrant', pick(number(), string_value()), reentry();
        return [\$t, { desc => 're-entrant tied scalar', magic => 1, reentrant => 1 }];
    }
    return any_value() if chance(4);
    my ($op, $k) = @$m{qw(op kind)};
    if ($op eq 'set' || $op eq 'add') {
        return forged_value($ADDR_CLASS) if $k eq 'address' && chance(8);
        return address_value() if $k eq 'address' && chance(2);
        return V(string_value()) if $k eq 'string' || $k eq 'list';
        return V(pick(number(), string_value())) if $k eq 'uint64';
        return V(number());
    }
    return V(number()) if $op eq 'lget';
    return V(wire_bytes()) if $op eq 'unpack' || ($op eq 'new' && $m->{class} eq $CLASS && chance(2));
    if ($op eq 'copy_from' || $op eq 'merge_from') {
        return forged_value(chance(4) ? $ADDR_CLASS : $CLASS) if chance(8);
        return chance(2) ? pool_value() : hash_arg();
    }
    return $m->{class} eq $CLASS ? hash_arg() : addr_hash_arg() if $op eq 'new';
    return any_value();
}

# ---- what the module sees -------------------------------------------------------

# The kind of a value as the module's type tests see it: 'record' or
# 'address' (an object of the class or a subclass, with 'live' telling
# whether its handle holds an object), 'forged record' or 'forged address'
# (an object of the class that the module did not make: whatever its
# referent, the type test passes and reading it croaks), 'hash', or 'other'.
sub seen_as {
    my $x = shift;
    my $info = $x->[1];
    return ('other') if $info->{magic};
    my $v = ${ $x->[0] };
    return ('other') unless ref $v;
    if ($info->{forged}) {
        return ('forged record') if $v->isa($CLASS);
        return ('forged address') if $v->isa($ADDR_CLASS);
    }
    if (blessed $v && reftype $v eq 'SCALAR') {
        return ('record', $$v != 0) if $v->isa($CLASS);
        return ('address', $$v != 0) if $v->isa($ADDR_CLASS);
    }
    return ('hash') if reftype $v eq 'HASH';
    return ('other');
}

# The text a value gives as a class name, or undef when reading it runs code.
sub class_text {
    my $x = shift;
    return undef if $x->[1]{magic} || $x->[1]{dies};
    my $v = ${ $x->[0] };
    return '' unless defined $v;
    my $s = "$v";
    utf8::encode($s) if utf8::is_utf8($s);
    $s =~ s/\0.*//s;
    return $s;
}

# expect($method, @values): what the call must end in: a list of acceptable
# outcomes, each '' (it returns) or an exception text.
sub expect {
    my ($m, @x) = @_;
    my $n = @x;
    my ($class, $op, $k) = @$m{qw(class op kind)};
    my $usage = "Usage: ${class}::$m->{name}($m->{usage})";
    if ($m->{argc} < 0 ? $n < 1 : $n != $m->{argc}) {
        return ($usage);
    }
    my $is_rec = $class eq $CLASS;
    my $not_type = "THIS is not of type $class";
    my $empty = $is_rec ? "THIS holds no $CLASS record" : "THIS holds no $ADDR_CLASS address";
    my @dies = map { $_->[1]{dies} ? $_->[1]{dies} : () } @x;
    my ($seen, $live) = seen_as($x[0]);
    my $own = $seen eq ($is_rec ? 'record' : 'address');
    my $forged = $seen eq ($is_rec ? 'forged record' : 'forged address');

    if ($op eq 'new') {
        my $text = class_text($x[0]);
        return ($x[0][1]{dies}) if $x[0][1]{dies};
        my @name = defined $text ? () : ('', qr/^invalid class /s);    # tied or $1: any name
        return ("invalid class $text") if defined $text && $text ne $class;
        return ('', @name) if $n != 2;
        my ($arg_seen) = seen_as($x[1]);
        return (hash_outcomes($x[1], $is_rec ? 'record' : 'address'), @name) if $arg_seen eq 'hash';
        return ($x[1][1]{dies}, @name) if $x[1][1]{magic} && $x[1][1]{dies};    # fetched once
        return ('', @name) if !$is_rec;
        return ($x[1][1]{dies}, @name) if $x[1][1]{dies};
        return ('', @name);
    }
    return ('') if $op eq 'fields';

    if ($op eq 'set' && ($k ne 'string' && $k ne 'address')) {
        # Numbers and flags convert the value first.
        return ($x[1][1]{dies}) if $x[1][1]{dies};
        return ($FORGED{$class}) if $forged;
        return ($not_type) unless $own;
        return ($empty) unless $live;
        return ('');
    }
    # A forged invocant croaks where the handle is first read: before any
    # other argument is looked at (DESTROY leaves it alone, quietly).
    return ($op eq 'DESTROY' ? '' : $FORGED{$class}) if $forged;
    return ($not_type) unless $own;
    if ($op eq 'set' || $op eq 'add') {
        if ($k eq 'address') {
            return ($empty) unless $live;
            return ($x[1][1]{dies}) if $x[1][1]{magic} && $x[1][1]{dies};    # a tied VAL is fetched once
            my ($vseen) = seen_as($x[1]);
            return ($FORGED_VAL) if $vseen eq 'forged address';
            return ("VAL is not of type $ADDR_CLASS") unless $vseen eq 'address';
            return ('');
        }
        return ($x[1][1]{dies}) if $x[1][1]{dies};
        return ($empty) unless $live;
        return ('');
    }
    return ($live ? '' : $empty) if $op eq 'has' || $op eq 'fclear' || $op eq 'size';
    if ($op eq 'lget') {
        return ("Usage: ${class}::$m->{field}(CLASS, [index])") if $n > 2;
        return ($x[1][1]{dies}) if $n == 2 && $x[1][1]{dies};
        return ('');
    }
    return ('') unless $live;
    return ($x[1][1]{dies} ? ($x[1][1]{dies}) : ('')) if $op eq 'unpack';
    if ($op eq 'copy_from' || $op eq 'merge_from') {
        return ($x[1][1]{dies}) if $x[1][1]{magic} && $x[1][1]{dies};    # a tied source is fetched once
        my ($vseen) = seen_as($x[1]);
        return ($FORGED_SOURCE) if $vseen eq 'forged record';
        # A hash blessed into the address class is no record: a hash source.
        return hash_outcomes($x[1], 'record') if $vseen eq 'hash' || ($vseen eq 'forged address' && reftype ${ $x[1][0] } eq 'HASH');
        return ('');
    }
    return ('');
}

# hash_outcomes($value, $view): how reading a hash argument as a record
# ('record') or as an address ('address') must end: a return (''), the death
# of one of its values, or Perl's refusal of a key that a restricted hash does
# not allow, whichever comes first in reading order.
sub hash_outcomes {
    my ($x, $view) = @_;
    return ($x->[1]{read} ? $x->[1]{read}{$view} : '');
}

# ---- the model of reading a hash ---------------------------------------------------

# The keys and shapes the hash form of a record read from the hash %$h must
# have: every field key that exists; an address key with the address keys
# that exist in its hash (none unless the value is a hash reference); a list
# key when its value is an array reference with at least one existing
# element, with that many elements. Tied values are not read (their value
# is no reference). Returns a canonical text.
sub hash_model {
    my ($h, $address_only) = @_;
    my @parts;
    my @names = $address_only ? @ADDR : @NAMES;
    for my $name (@names) {
        next unless exists $h->{$name};
        my $kind = $address_only ? 'uint32' : $FIELD{$name}{kind};
        # A tied hash's values are read through it (Tie::StdHash keeps them in
        # its object); a tied element is fetched once, and holds no reference.
        my $store = tied(%$h) // $h;
        my $v = tied($store->{$name}) ? undef : $store->{$name};
        if ($kind eq 'address') {
            my @sub = ref $v && reftype $v eq 'HASH' ? grep { exists $v->{$_} } @ADDR : ();
            push @parts, "$name\{@sub}";
        }
        elsif ($kind eq 'list') {
            next unless ref $v && reftype $v eq 'ARRAY';
            my $count = grep { exists $v->[$_] } 0 .. $#$v;
            push @parts, "$name\[$count]" if $count;
        }
        else {
            push @parts, $name;
        }
    }
    return join ' ', @parts;
}

# The same shape text of a record (or of an address when $address_only).
sub shape_of {
    my ($h, $address_only) = @_;
    my @parts;
    for my $name ($address_only ? @ADDR : @NAMES) {
        next unless exists $h->{$name};
        my $kind = $address_only ? 'uint32' : $FIELD{$name}{kind};
        if ($kind eq 'address') { push @parts, "$name\{" . join(' ', grep { exists $h->{$name}{$_} } @ADDR) . '}' }
        elsif ($kind eq 'list') { push @parts, "$name\[" . scalar(@{ $h->{$name} }) . ']' }
        else { push @parts, $name }
    }
    return join ' ', @parts;
}

# ---- calls -----------------------------------------------------------------------

# with_args($code, @refs): calls $code with the scalars the references point
# to as its arguments (aliased, not copied), in the caller's context.
sub with_args {
    my ($code, @r) = @_;
    my $n = @r;
    return $code->() if $n == 0;
    return $code->(${ $r[0] }) if $n == 1;
    return $code->(${ $r[0] }, ${ $r[1] }) if $n == 2;
    return $code->(${ $r[0] }, ${ $r[1] }, ${ $r[2] }) if $n == 3;
    return $code->(${ $r[0] }, ${ $r[1] }, ${ $r[2] }, ${ $r[3] }) if $n == 4;
    return $code->(${ $r[0] }, ${ $r[1] }, ${ $r[2] }, ${ $r[3] }, ${ $r[4] });
}

# An exception's text without the " at FILE line N." that Perl appends to a
# text that does not end in a newline.
sub clean_message {
    my $e = shift;
    return "$e" if ref $e;
    $e =~ s/ at \S+ line \d+(?:, <[^>]*> (?:line|chunk) \d+)?\.\n\z//;
    return $e;
}

my ($CALLS, $RAISED, $CHECKS, $PROBLEMS) = (0, 0, 0, 0);
my %MESSAGES;
my $WARNINGS = 0;

sub problem {
    my ($what) = @_;
    $PROBLEMS++;
    print "PROBLEM: seed $opt->{seed}, call $CALLS: $what\n";
    if ($PROBLEMS >= $opt->{'max-problems'}) {
        print finish_summary();
        exit 1;
    }
}

sub describe_call {
    my ($m, $style, $ctx, @x) = @_;
    my @d = map { $_->[1]{desc} } @x;
    return "$m->{class}::$m->{name}(" . join(', ', @d) . ") [$style, $ctx context]";
}

# pool_state(): the contents of every object of the pool, as one text.
sub pool_state {
    return join "\n", map {
        my $v = ${ $POOL[$_] };
        !(blessed $v && reftype $v eq 'SCALAR') ? 'none'
            : $v->isa($CLASS) ? ($$v ? unpack('H*', $v->pack) : 'empty')
            : $v->isa($ADDR_CLASS) ? ($$v ? canon($v->to_hashref) : 'empty') : 'other';
    } 0 .. $#POOL;
}

sub is_empty_record {
    my $x = shift;
    my ($seen, $live) = seen_as($x);
    return $seen eq 'record' && !$live;
}

# one_call(): picks a method and arguments, makes the call, checks how it
# ended and what it left.
sub one_call {
    my $m = $METHODS[ rint(chance(4) ? scalar @METHODS : $RECORD_METHODS) ];
    $m = $METHODS[ rint(15) ] if chance(5);    # the whole-record methods more often
    my ($class, $op) = @$m{qw(class op)};

    # The invocant.
    my $this;
    if ($op eq 'new') {
        my $k = rint(10);
        $this = $k <= 6 ? V($class) : $k == 7 ? V(pick('QelFuzz::SubRecord', 'QelFuzz::SubAddr', $class eq $CLASS ? $ADDR_CLASS : $CLASS, "${class}x", substr($class, 0, 5)))
              : any_value();
    }
    elsif ($op eq 'fields') {
        $this = chance(2) ? V($CLASS) : any_value();
    }
    else {
        my $k = rint(10);
        $this = $k <= 6 ? ($class eq $CLASS ? pool_record() : pool_address())
              : $k == 7 ? ($class eq $CLASS ? record_value() : address_value())
              : $k == 8 ? pool_value()
              : chance(2) ? forged_value(chance(4) ? ($class eq $CLASS ? $ADDR_CLASS : $CLASS) : $class)
              : any_value();
    }

    # The other arguments.
    my $want = $m->{argc} < 0 ? ($op eq 'new' ? pick(0, 1, 1, 1, 2) : pick(0, 0, 0, 1, 1, 2)) : $m->{argc} - 1;
    $want = rint(4) if chance(12);
    my @args = map { value_for($m) } 1 .. $want;
    my @x = ($this, @args);
    @x = () if chance(40);    # not even an invocant: a usage error

    # The exclusions: never merge a record into itself (the process ends by
    # design); to_hashref on an empty handle only in plain scalar assignment.
    if ($op eq 'merge_from' && @x == 2) {
        my ($s1) = seen_as($x[0]);
        my ($s2) = seen_as($x[1]);
        return if $s1 eq 'record' && $s2 eq 'record' && ${ ${ $x[0][0] } } == ${ ${ $x[1][0] } };
    }
    my $hashref_on_empty = $class eq $CLASS && $op eq 'to_hashref' && @x == 1 && is_empty_record($x[0]);

    # The call: as a method when the invocant is of the class, else as a
    # plain function; in list, scalar or void context.
    my ($seen) = @x ? seen_as($this) : ('none');
    my $method_style = @x && (($seen =~ /record\z/ && $class eq $CLASS) || ($seen =~ /address\z/ && $class eq $ADDR_CLASS)
        || (($op eq 'new' || $op eq 'fields') && !$this->[1]{magic} && defined ${ $this->[0] } && !ref ${ $this->[0] }
            && ${ $this->[0] } eq $class));
    $method_style = 0 if chance(5);
    my $ctx = $hashref_on_empty ? 'scalar' : pick('list', 'list', 'scalar', 'void');
    my $name = $m->{name};
    my $code = $method_style ? sub { $_[0]->$name(@_[1 .. $#_]) } : $m->{code};
    my $style = $method_style ? 'method' : 'function';
    print "call $CALLS: ", describe_call($m, $style, $ctx, @x), "\n" if $opt->{trace};

    my @expected = expect($m, @x);
    my $before = pre_state($m, @x);
    my $pool_before = (grep { $_->[1]{forged} } @x) ? pool_state() : undef;

    my (@ret, $ret, $err);
    $CALLS++;
    $REENTERED = 0;
    $CALL_THIS = @x && live_record($x[0]);
    {
        local $@;
        my $ok;
        if ($hashref_on_empty) {
            # The only form the null result of an empty handle allows.
            my $obj = ${ $x[0][0] };
            $ok = eval { my $h = $obj->to_hashref; $ret = $h; 1 };
        }
        else {
            $MATCH_TEXT =~ /(.*)/s;    # for an argument that is $1
            $ok = $ctx eq 'list'   ? eval { @ret = with_args($code, map { $_->[0] } @x); 1 }
                : $ctx eq 'scalar' ? eval { $ret = with_args($code, map { $_->[0] } @x); 1 }
                :                    eval { with_args($code, map { $_->[0] } @x); 1 };
        }
        $err = $ok ? undef : clean_message($@);
    }

    my $got = defined $err ? $err : '';
    if (defined $err) {
        $RAISED++;
        my $key = $err;
        $key =~ s/^invalid class .*/invalid class %s/s;
        $MESSAGES{$key}++;
    }
    # A re-entrant FETCH may have emptied or changed the records of the call:
    # a return or the empty-handle errors are fine then, and nothing more is
    # checked of the call.
    if ($REENTERED) {
        push @expected, '', "THIS holds no $CLASS record", "THIS holds no $ADDR_CLASS address";
        $PARTIAL{ refaddr ${ $POOL[$_] } } = 1 for grep { ref ${ $POOL[$_] } } 0 .. 15;
    }
    unless (grep { ref $_ ? $got =~ $_ : $got eq $_ } @expected) {
        problem(describe_call($m, $style, $ctx, @x) . "\n  ended in " . (defined $err ? "'$err'" : 'a return')
            . ', expected ' . join(' or ', map { ref $_ ? "$_" : $_ eq '' ? 'a return' : "'$_'" } @expected));
        return;
    }
    if (defined $pool_before && !$REENTERED && grep { $got eq $_ } values(%FORGED), $FORGED_SOURCE, $FORGED_VAL) {
        # Refused for a forged handle: no object of the pool was touched.
        $CHECKS++;
        problem(describe_call($m, $style, $ctx, @x) . ": the pool's objects changed") if pool_state() ne $pool_before;
    }
    return if defined $err || $REENTERED;
    post_check($m, $ctx, \@ret, $ret, $before, @x);
    return;
}

# ---- results ---------------------------------------------------------------------

sub live_record {
    my $x = shift;
    my ($seen, $live) = seen_as($x);
    return $seen eq 'record' && $live ? ${ $x->[0] } : undef;
}

sub live_address {
    my $x = shift;
    my ($seen, $live) = seen_as($x);
    return $seen eq 'address' && $live ? ${ $x->[0] } : undef;
}

# What post_check needs from before the call.
sub pre_state {
    my ($m, @x) = @_;
    return undef unless $m->{class} eq $CLASS && @x >= 1;
    my $r = live_record($x[0]) or return undef;
    my %s;
    $s{size} = $r->${ \"$m->{field}_size" } if $m->{op} eq 'add';
    $s{pack} = $r->pack if $m->{op} eq 'set' && $m->{kind} eq 'address';
    if (($m->{op} eq 'copy_from' || $m->{op} eq 'merge_from') && @x == 2) {
        if (my $src = live_record($x[1])) {
            $s{src} = canon($src->to_hashref);
            $s{src_pack} = $src->pack;
            $s{src_partial} = $PARTIAL{ refaddr $src };
        }
        elsif ((seen_as($x[1]))[0] eq 'record') {
            $s{src_empty} = 1;
        }
    }
    return \%s;
}

# The result and the state after a call that returned.
sub post_check {
    my ($m, $ctx, $ret_list, $ret, $before, @x) = @_;
    my ($class, $op, $k, $f) = @$m{qw(class op kind field)};
    my $what = describe_call($m, 'any', $ctx, @x);
    my $r = $class eq $CLASS && @x >= 1 ? live_record($x[0]) : undef;
    my $first = $ctx eq 'list' ? $ret_list->[0] : $ret;

    if ($op eq 'new') {
        return if $ctx eq 'void';
        my $obj = $first;
        unless (ref $obj && ref $obj eq $class && $$obj) {
            problem("$what returned " . _desc($obj) . ", not a live $class object");
            return;
        }
        if ($class eq $CLASS) {
            $PARTIAL{ refaddr $obj } = 0;
            if (@x == 2) {
                my ($seen) = seen_as($x[1]);
                if ($seen eq 'hash') {
                    check_hash_read($what, $obj->to_hashref, ${ $x[1][0] }, 0);
                }
                elsif ($x[1][1]{plain}) {
                    my $u = $CLASS->new;
                    my $ok = $u->unpack(${ $x[1][0] });
                    $PARTIAL{ refaddr $obj } = !$ok;
                    problem("$what: new(\$bytes) and unpack(\$bytes) differ")
                        if $u->pack ne $obj->pack || canon($u->to_hashref) ne canon($obj->to_hashref);
                }
                else {
                    $PARTIAL{ refaddr $obj } = 1;    # parsed from a value read once: outcome unknown
                }
            }
        }
        elsif (@x == 2 && (seen_as($x[1]))[0] eq 'hash') {
            check_hash_read($what, $obj->to_hashref, ${ $x[1][0] }, 1);
        }
        # Keep some of the new objects.
        $POOL[ $class eq $CLASS ? rint(16) : 16 + rint(4) ] = \(my $keep = $obj) if chance(3);
        return;
    }
    if ($class eq $ADDR_CLASS) {
        my $a = live_address($x[0]);
        if ($op eq 'to_hashref' && $ctx ne 'void') {
            if ($a) { problem("$what returned " . _desc($first) . ', not a hash reference') unless ref $first eq 'HASH' }
            else { problem("$what on an empty address returned " . _desc($first)) if defined $first }
        }
        return unless $a;
        my $has = defined $f ? "has_$f" : undef;
        if ($op eq 'set') {
            problem("$what: has_$f is not 1 after set_$f") unless $a->$has eq '1';
            my $v = ${ $x[1][0] };
            if ($x[1][1]{plain} && defined $v && !ref $v && $v =~ /\A[0-9]{1,15}\z/) {
                my $e = $v % 4294967296;
                problem("$what: $f reads " . $a->$f . ", expected $e") unless $a->$f eq $e;
            }
        }
        elsif ($op eq 'fclear') {
            problem("$what: has_$f or $f not cleared") unless $a->$has eq '0' && $a->$f eq '0';
        }
        elsif ($op eq 'DESTROY') {
            problem("$what: the handle is not 0 after DESTROY") if ${ ${ $x[0][0] } } != 0;
        }
        elsif (($op eq 'has' || $op eq 'get') && $ctx ne 'void') {
            problem("$what returned " . _desc($first)) unless defined $first && $first =~ /\A[0-9]+\z/;
        }
        return;
    }

    # The record class.
    if ($op eq 'fields') {
        if ($ctx eq 'list') { problem("$what returned (@$ret_list)") unless "@$ret_list" eq "@NAMES" }
        elsif ($ctx eq 'scalar') { problem("$what returned " . _desc($ret)) unless defined $ret && $ret eq $NAMES[-1] }
        return;
    }
    if (!$r) {
        # An empty handle: the documented empty results.
        my ($seen) = seen_as($x[0]);
        return unless $seen eq 'record' && $ctx ne 'void';
        my %empty = (is_initialized => '0', error_string => '', debug_string => '', short_debug_string => '',
                     unpack => '0', length => '0');
        if (exists $empty{$op}) {
            problem("$what on an empty handle returned " . _desc($first) . ", expected '$empty{$op}'")
                unless defined $first && $first eq $empty{$op};
        }
        elsif ($op eq 'pack' || $op eq 'to_hashref') {
            problem("$what on an empty handle returned " . _desc($first)) if defined $first;
        }
        elsif (($op eq 'get' || $op eq 'lget') && $ctx eq 'list') {
            problem("$what on an empty handle returned " . scalar(@$ret_list) . ' values') if @$ret_list;
        }
        return;
    }
    my $obj_key = refaddr $r;
    if ($op eq 'set') {
        my $has = "has_$f";
        if ($k eq 'address') {
            my $a = live_address($x[1]);
            if ($a) {
                problem("$what: has_$f is not 1 after set_$f") unless $r->$has eq '1';
                problem("$what: $f differs from the address given")
                    unless canon($r->$f->to_hashref) eq canon($a->to_hashref);
            }
            else {
                problem("$what: set_$f with an empty address changed the record") if $r->pack ne $before->{pack};
            }
        }
        else {
            problem("$what: has_$f is not 1 after set_$f") unless $r->$has eq '1';
            if ($k eq 'string' && $x[1][1]{plain}) {
                my $v = ${ $x[1][0] };
                my $e = defined $v ? "$v" : '';
                utf8::encode($e) if utf8::is_utf8($e);
                problem("$what: $f reads " . _desc(scalar $r->$f) . ', expected ' . _desc($e)) unless $r->$f eq $e;
            }
        }
    }
    elsif ($op eq 'add') {
        my $size = "${f}_size";
        problem("$what: ${f}_size went from $before->{size} to " . $r->$size) unless $r->$size == $before->{size} + 1;
        if ($x[1][1]{plain}) {
            my $v = ${ $x[1][0] };
            my $e = defined $v ? "$v" : '';
            utf8::encode($e) if utf8::is_utf8($e);
            my $last = $r->$f($before->{size});
            problem("$what: the element added reads " . _desc($last) . ', expected ' . _desc($e))
                unless defined $last && $last eq $e;
        }
    }
    elsif ($op eq 'fclear' && $k eq 'list') {
        my $size = "${f}_size";
        problem("$what: ${f}_size is " . $r->$size . ' after clear') unless $r->$size == 0;
    }
    elsif ($op eq 'fclear') {
        my $has = "has_$f";
        problem("$what: has_$f is not 0 after clear_$f") unless $r->$has eq '0';
    }
    elsif ($op eq 'has' && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless defined $first && ($first eq '1' || $first eq '0');
    }
    elsif ($op eq 'DESTROY') {
        problem("$what: the handle is not 0 after DESTROY") if ${ ${ $x[0][0] } } != 0;
    }
    elsif ($op eq 'copy_from' && @x == 2) {
        if (defined $before->{src}) {
            problem("$what: the copy differs from its source")
                if canon($r->to_hashref) ne $before->{src} || $r->pack ne $before->{src_pack};
            $PARTIAL{$obj_key} = $before->{src_partial};
        }
        elsif ($before->{src_empty}) {
            problem("$what: copying from an empty handle left length " . $r->length) if $r->length != 0;
            $PARTIAL{$obj_key} = 0;
        }
        elsif ((seen_as($x[1]))[0] eq 'hash') {
            check_hash_read($what, $r->to_hashref, ${ $x[1][0] }, 0);
            $PARTIAL{$obj_key} = 0;
        }
    }
    elsif ($op eq 'merge_from' && @x == 2) {
        $PARTIAL{$obj_key} ||= $before->{src_partial} if defined $before->{src};
    }
    elsif ($op eq 'unpack') {
        if ($ctx ne 'void') {
            problem("$what returned " . _desc($first)) unless defined $first && ($first eq '1' || $first eq '0');
        }
        # The outcome decides whether the record must read back (asked again
        # when the result was not kept).
        my $ok = $ctx ne 'void' ? $first : undef;
        if (!defined $ok && $x[1][1]{plain}) { $ok = $CLASS->new->unpack(${ $x[1][0] }) }
        $PARTIAL{$obj_key} = defined $ok ? !$ok : 1;
    }
    elsif ($op eq 'length' && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless defined $first && $first =~ /\A[0-9]+\z/;
    }
    elsif ($op eq 'to_hashref' && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless ref $first eq 'HASH';
    }
    elsif ($op eq 'pack' && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless defined $first && !ref $first;
    }
    elsif (($op eq 'is_initialized') && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless defined $first && $first eq '1';
    }
    elsif ($op eq 'error_string' && $ctx ne 'void') {
        problem("$what returned " . _desc($first)) unless defined $first && $first eq '';
    }
    if ($op eq 'clear' && !defined $f) {
        problem("$what: length is " . $r->length . ' after clear') if $r->length != 0;
        $PARTIAL{$obj_key} = 0;
    }
    return;
}

# The record or address read from a hash has the keys and shapes the hash
# gives it.
sub check_hash_read {
    my ($what, $got, $h, $address_only) = @_;
    my $want = eval { hash_model($h, $address_only) };
    return unless defined $want;    # reading the hash here died: no model
    my $have = shape_of($got, $address_only);
    problem("$what: the hash gave the fields ($have), expected ($want)") if $have ne $want;
}

# ---- invariants ------------------------------------------------------------------

# check_pool_record(): one live record of the pool against its own hash form,
# its encoding and its copies.
sub check_pool_record {
    my @live = grep { my $v = ${ $POOL[$_] }; blessed $v && $v->isa($CLASS) && $$v } 0 .. 15;
    return unless @live;
    my $i = pick(@live);
    my $r = ${ $POOL[$i] };
    $CHECKS++;
    my $where = "pool[$i]";
    my $h = $r->to_hashref;
    my $hc = canon($h);
    my @p = record_problems($r, $h);
    problem("$where: $_") for @p[0 .. ($#p < 4 ? $#p : 4)];
    my $len = $r->length;
    my $packed = $r->pack;
    if ($len != 0) {
        problem("$where: length is $len but pack gives " . length($packed) . ' bytes') if $len != length $packed;
    }
    else {
        problem("$where: length is 0 but pack is not 16 zero bytes") if $packed ne "\0" x 16;
    }
    my $from_hash = $CLASS->new($h);
    problem("$where: new(to_hashref)->to_hashref differs") if canon($from_hash->to_hashref) ne $hc;
    my $copy = $CLASS->new;
    $copy->copy_from($r);
    problem("$where: a copy packs differently") if $copy->pack ne $packed;
    $copy->discard_unkown_fields;
    problem("$where: without unknown fields it packs unlike new(to_hashref)") if $copy->pack ne $from_hash->pack;
    my $again = $CLASS->new($from_hash->pack);
    problem("$where: pack -> new -> pack of its hash form is not identical") if $again->pack ne $from_hash->pack;
    unless ($PARTIAL{ refaddr $r }) {
        my $u = $CLASS->new;
        my $ok = $u->unpack($packed);
        problem("$where: its encoding does not parse back") if $len > 0 && !$ok;
        problem("$where: pack -> new -> pack is not identical") if $len > 0 && $u->pack ne $packed;
        problem("$where: pack -> new -> to_hashref differs") if $len > 0 && canon($u->to_hashref) ne $hc;
    }
    return;
}

# ---- the run -----------------------------------------------------------------------

sub fill_pool {
    for my $i (0 .. 19) {
        my $obj = $i >= 16 ? ${ address_value()->[0] }
                : $i % 8 == 6 ? bless($CLASS->new(random_hash_form(0)), 'QelFuzz::SubRecord')
                : $i % 8 == 7 ? ${ record_value()->[0] }
                : $CLASS->new(random_hash_form(0));
        $POOL[$i] = \$obj;
    }
}

# tend_pool(): keeps at least 13 live records in the pool (DESTROY empties
# them), and clears a record that merges have made larger than 256 KiB.
sub tend_pool {
    my @empty = grep { my $v = ${ $POOL[$_] }; !(blessed $v && $v->isa($CLASS) && $$v) } 0 .. 15;
    if (@empty > 3) {
        my $obj = $CLASS->new(random_hash_form(0));
        $POOL[ pick(@empty) ] = \$obj;
    }
    my $v = ${ $POOL[ rint(16) ] };
    $v->clear if blessed $v && $v->isa($CLASS) && $$v && $v->length > 256 * 1024;
}

sub finish_summary {
    my @distinct = sort keys %MESSAGES;
    my $text = '';
    if ($opt->{messages} || ($PROBLEMS && !$opt->{quiet})) {
        $text .= "exception texts seen (count, text):\n";
        $text .= sprintf "  %7d  %s\n", $MESSAGES{$_}, $_ for @distinct;
    }
    return $text . finish_line('fuzz_calls', $opt, calls => $CALLS, exceptions => $RAISED,
        'distinct texts' => scalar @distinct, 'invariant checks' => $CHECKS, warnings => $WARNINGS,
        problems => $PROBLEMS);
}

sub main {
    local $SIG{__WARN__} = sub { $WARNINGS++ };    # perl's conversion warnings: expected
    fill_pool();
    my $step = $opt->{count} >= 10 ? int($opt->{count} / 10) : 0;
    my $next = $step;
    while ($CALLS < $opt->{count}) {
        one_call();
        check_pool_record() if chance(50);
        tend_pool();
        if (chance(200)) {
            # Now and then a pool slot gets a new object of any kind.
            my $i = rint(scalar @POOL);
            $POOL[$i] = ($i >= 16 ? address_value() : record_value())->[0];
        }
        if ($step && $CALLS >= $next && !$opt->{quiet}) {
            print "  $CALLS calls\n";
            $next += $step;
        }
    }
    print finish_summary();
    return $PROBLEMS ? 1 : 0;
}

exit main() unless caller;
1;
