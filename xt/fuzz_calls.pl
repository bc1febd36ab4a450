#!/usr/bin/perl
# API fuzzer of quillon_event_log::QuillonEventLog, quillon_event_log::IPAddr
# and quillon_event_log::Codec: seeded random calls of every method with
# random invocants, argument counts and Perl values of every kind (handles the
# module did not make among them: copied integers, evaluated dumps, objects
# blessed across the classes, blessed hashes, shared clones), each outcome
# checked against the documented one, and a pool of objects whose invariants
# are checked along the way.
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
use QelCodec ();
use B ();
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
  --no-codec        make no calls of quillon_event_log::Codec (by default
                    one call in four is one of its functions)
  --codec-only      make only calls of quillon_event_log::Codec (its encode
                    and decode with random hashes and bytes, new, the option
                    accessors, wrong counts and invocants), for long runs
Exit status 0 when every call ended as documented and every invariant held,
1 otherwise.
END

my $opt = parse_options({ count => 10000, 'tied-hashes' => 1, reentrant => 1, codec => 1 }, $USAGE,
    'messages!', 'tied-hashes!', 'reentrant!', 'codec!', 'codec-only');
die "--codec-only and --no-codec exclude each other\n" if $opt->{'codec-only'} && !$opt->{codec};
$| = 1;
if ($opt->{codec}) { require quillon_event_log::Codec }
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

# ---- the codec -------------------------------------------------------------------
#
# Calls of quillon_event_log::Codec (encode_event, decode_event, new, encode,
# decode and the option accessors). Each argument is made from a recipe, a
# description of the Perl value (its kind, content and magic) from which both
# the value and the codec's documented outcome are worked out, so the model
# never reads the value itself (that would run its FETCH or change its flags).
#
# Recipes: {t => 'undef'}, {t => 'str', v => $s}, {t => 'iv', v => $n},
# {t => 'nv', v => $n}, {t => 'glob'}, {t => 'ref', make => $code},
# {t => 'boolobj', make => $code, truth => 0|1}, {t => 'dies'} (a tied scalar
# whose FETCH dies), {t => 'tied', inner => $recipe, n => \$fetches},
# {t => 'hash', keys => [[$key, $recipe], ...], bless => $class, how =>
# 'plain'|'tied'|'locked'}, {t => 'array', elems => [$recipe or undef for a
# hole, ...], trailing => $holes, bless => $class}.

my $CODEC = 'quillon_event_log::Codec';
my @CODEC_OPTS = map {
    { characters => $_ & 1, addresses => ($_ & 2 ? 'text' : 'hash'), unknown_fields => ($_ & 4 ? 'drop' : 'keep') };
} 0 .. 7;
my @CODEC_OBJ;
my %DEFAULT_OPTS = (characters => 0, addresses => 'hash', unknown_fields => 'keep');
my $JSON_PP = eval { require JSON::PP; 1 };
my $JSON_XS = eval { require JSON::XS; 1 };
my %KIND_OF = map { $_->{name} => $_->{kind} } @FIELDS;
my %NUM_OF = map { $_->[0] => $_->[1] } QelTest::field_table();
my %ADDR_NUM = map { $ADDR[$_] => $_ + 1 } 0 .. $#ADDR;
my @KNOWN_KEYS = (@NAMES, '_unknown');
my @ADDR_KEYS = (@ADDR, '_unknown');
my $U32_MAX = '4294967295';
my $U64_MAX = '18446744073709551615';
my ($CODEC_CALLS, $CODEC_RAISED) = (0, 0);

{
    package QelFuzz::CountingScalar;    # a tied scalar that counts its fetches
    sub TIESCALAR { my ($c, $v, $n) = @_; bless { v => $v, n => $n }, $c }
    sub FETCH     { ${ $_[0]{n} }++; $_[0]{v} }
    sub STORE     { $_[0]{v} = $_[1] }
}

sub codec_objects {
    @CODEC_OBJ = map { $CODEC->new(%$_) } @CODEC_OPTS unless @CODEC_OBJ;
    return @CODEC_OBJ;
}

# ---- recipes: making the values ---------------------------------------------------

sub S { my ($t, %a) = @_; return { t => $t, %a } }

# put(\$slot, $recipe): stores the value of $recipe in the slot (ties it for the
# magical kinds).
sub put {
    my ($slot, $s) = @_;
    my $t = $s->{t};
    if ($t eq 'dies') { tie $$slot, 'QelFuzz::DyingScalar'; return }
    if ($t eq 'tied') {
        my $inner;
        put(\$inner, $s->{inner});
        ${ $s->{n} } = 0;
        tie $$slot, 'QelFuzz::CountingScalar', $inner, $s->{n};
        return;
    }
    $$slot = value_of($s);
}

# value_of($recipe): a new plain value for a recipe of a kind that is not magical.
sub value_of {
    my $s = shift;
    my $t = $s->{t};
    return undef if $t eq 'undef';
    return do { my $v = $s->{v}; $v } if $t eq 'str';
    return do { my $v = $s->{v}; $v } if $t eq 'iv' || $t eq 'nv';
    return *STDOUT if $t eq 'glob';
    return $s->{make}->() if $t eq 'ref' || $t eq 'boolobj';
    if ($t eq 'hash') {
        my (%h, %tied_h);
        my $store = $s->{how} eq 'tied' ? tie(%tied_h, 'Tie::StdHash') : \%h;
        for (@{ $s->{keys} }) {
            delete $store->{ $_->[0] };    # a key given twice: the last value, untied
            put(\$store->{ $_->[0] }, $_->[1]);
        }
        return \%tied_h if $s->{how} eq 'tied';
        bless \%h, $s->{bless} if $s->{bless};
        Hash::Util::lock_keys(%h) if $s->{how} eq 'locked';    # (after bless, which a locked hash refuses)
        return \%h;
    }
    if ($t eq 'array') {
        my @a;
        my $i = 0;
        for my $e (@{ $s->{elems} }) {
            put(\$a[$i], $e) if defined $e;
            $i++;
        }
        $#a = $i - 1 + $s->{trailing};
        return $s->{bless} ? bless(\@a, $s->{bless}) : \@a;
    }
    die "no value for a recipe of kind $t\n";
}

# The tied recipes under a recipe (whose fetches are counted).
sub tied_recipes {
    my $s = shift;
    return () unless ref $s eq 'HASH';
    return ($s, tied_recipes($s->{inner})) if $s->{t} eq 'tied';
    return map { tied_recipes($_) } values %{ keys_of($s) } if $s->{t} eq 'hash';
    return map { tied_recipes($_) } grep { defined } @{ $s->{elems} } if $s->{t} eq 'array';
    return ();
}

# snapshot($value): the text of a value as the caller has it (keys, flags,
# contents), read without fetching tied values.
sub snapshot {
    if (my $t = tied $_[0]) { return 'TIED(' . (ref $t eq 'QelFuzz::CountingScalar' ? snapshot($t->{v}) : '') . ')' }
    my $v = shift;
    my $r = ref $v;
    if ($r && reftype $v eq 'HASH') {
        my $h = tied(%$v) ? tied(%$v) : $v;
        return "$r\{" . join(',', map {
            my $k = $_;
            "$k=" . (tied($h->{$k}) ? 'TIED' : snapshot($h->{$k}));
        } sort keys %$h) . '}';
    }
    if ($r && reftype $v eq 'ARRAY') {
        return "$r\[" . join(',', map { exists $v->[$_] ? (tied($v->[$_]) ? 'TIED' : snapshot($v->[$_])) : 'HOLE' } 0 .. $#$v) . ']';
    }
    return "$r" if $r;
    return 'undef' unless defined $v;
    my $flags = B::svref_2object(\$v)->FLAGS & (B::SVf_POK() | B::SVf_IOK() | B::SVf_NOK() | B::SVf_UTF8());
    my $copy = $v;
    return "$flags:$copy";
}

# ---- recipes: random ones -------------------------------------------------------------

my @BAD_NUMBER_TEXTS = ('-1', '+1', ' 3', '3 ', '0x10', '1e3', '1.5', '', '12abc', 'abc', "1\n", 'true',
                        '0 but true', '0E0', '-0', "\x{ff11}\x{ff12}", 'NaN', 'inf', '٣', "\xe92",
                        do { my $x = "\xe92"; utf8::upgrade($x); $x });    # (shown alike with or without the flag)

# A value of the wrong kind for every family.
sub wrong_kind {
    my $k = rint(12);
    return S('ref', make => sub { [1] })                           if $k == 0;
    return S('ref', make => sub { {} })                            if $k == 1;
    return S('ref', make => sub { sub { 1 } })                     if $k == 2;
    return S('ref', make => sub { \(my $x = 'x') })                if $k == 3;
    return S('ref', make => sub { \\'x' })                         if $k == 4;
    return S('ref', make => sub { QelFuzz::Other->new })           if $k == 5;
    return S('ref', make => sub { bless [], 'QelFuzz::Other' })    if $k == 6;
    return S('ref', make => sub { \*STDOUT })                      if $k == 7;
    return S('ref', make => sub { qr/x/ })                         if $k == 8;
    return S('glob')                                               if $k == 9;
    return S('dies')                                               if $k == 10;
    return S('ref', make => sub { bless \(my $x = 1), 'QelFuzz::Other' });
}

sub maybe_tied {
    my $s = shift;
    return chance(12) ? S('tied', inner => $s, n => \(my $n = 0)) : $s;
}

sub ascii_word { pick('curl', 'block', 'GET', '/login', 'Malicious Bot', 'NZ', '', 'a b', 'x' x (1 + rint(60)), "tab\there") }

# A string value: valid for the options when $good, anything otherwise.
sub string_recipe {
    my ($o, $good) = @_;
    my $k = rint($good ? 12 : 20);
    return maybe_tied(S('str', v => ascii_word()))                         if $k <= 3;
    return maybe_tied(S('str', v => rbytes(rint(12))))                     if $k == 4;    # any bytes
    if ($k == 5) { my $s = "\xe9t\xe9" . ascii_word(); utf8::upgrade($s); return S('str', v => $s) }    # downgradable
    return S('iv', v => pick(0, 42, -7, 4294967296))                       if $k == 6;
    return S('nv', v => pick(1.5, -0.25, 1e20))                            if $k == 7;
    return S('str', v => "\x{e2}\x{98}\x{ba}")                             if $k == 8;    # UTF-8 bytes
    if ($k <= 11) {
        # Characters: wide ones with the option, bytes without it.
        return S('str', v => "caf\xe9") unless $o->{characters};
        my $s = join '', map { chr(pick(0x263A, 0xE9, 0x1F600, 0x10FFFF, 0xDC80 + rint(128), 0x41)) } 1 .. 1 + rint(5);
        return S('str', v => $s);
    }
    return wrong_kind() if $k <= 14;
    if ($k <= 17) {
        my $s = join '', map { chr(pick(0x263A, 0x100, 0xD800, 0xDBFF, 0xDC7F, 0xDD00, 0xDFFF, 0x110000, 0xDC80, 0x41)) } 1 .. 1 + rint(3);
        return S('str', v => $s);
    }
    return S('undef') if $k == 18;
    return maybe_tied(S('str', v => 'x' x rint(1000)));
}

# A uint32 or uint64 value.
sub number_recipe {
    my ($max, $good) = @_;
    my $big = $max eq $U64_MAX;
    my $k = rint($good ? 10 : 18);
    return maybe_tied(S('iv', v => pick(0, 1, 80, 443, 65535, 2147483647, 4294967295, $big ? (9223372036854775807, 18446744073709551615) : ()))) if $k <= 2;
    return S('iv', v => rint(100000))                                      if $k == 3;
    return S('nv', v => pick(0.0, 1.0, 4294967295.0, 65536.0, $big ? (2**63, 1e19, 2**53) : ()))  if $k == 4;
    return maybe_tied(S('str', v => pick('0', '00012345', '007', $max, '0' x rint(30) . '1', '' . rint(1000000)))) if $k <= 6;
    return S('str', v => '' . (r64() >> rint(64))) if $k <= 7 && $big;
    return S('str', v => '' . rint(4294967296)) if $k <= 7;
    return S('iv', v => rint(65536)) if $k <= 9;
    return S('iv', v => pick(-1, -4294967296, -9223372036854775807 - 1, $big ? () : (4294967296, 18446744073709551615))) if $k == 10;
    return S('nv', v => pick(0.5, -1.0, -0.5, 9**9**9, -9**9**9, (9**9**9) / (9**9**9), 2**64, 1e30, $big ? () : (4294967296.0, 1e10))) if $k == 11;
    return S('str', v => pick(@BAD_NUMBER_TEXTS)) if $k <= 13;
    return S('str', v => pick('4294967296', '18446744073709551616', '99999999999999999999999', '000000000000000000000018446744073709551616')) if $k == 14;
    return bool_object() if $k == 15;
    return S('undef') if $k == 16;
    return wrong_kind();
}

sub bool_object {
    my $truth = rint(2);
    return S('boolobj', truth => $truth, make => sub { $truth ? JSON::PP::true() : JSON::PP::false() }) if $JSON_PP && chance(2);
    return S('boolobj', truth => $truth, make => sub { $truth ? JSON::XS::true() : JSON::XS::false() }) if $JSON_XS;
    return S('str', v => $truth ? '1' : '0');
}

sub bool_recipe {
    my $good = shift;
    my $k = rint($good ? 8 : 14);
    return maybe_tied(S('iv', v => rint(2)))                   if $k <= 1;
    return maybe_tied(S('str', v => pick('1', '0', '')))       if $k <= 3;
    return S('str', v => !!rint(2) ? !!1 : !!0)                if $k == 4;    # Perl's own booleans
    return bool_object()                                       if $k <= 6;
    return S('iv', v => pick(0, 1))                            if $k == 7;
    return S('str', v => pick('true', 'false', 'yes', '01', ' 1', '1.0', '00', 'on')) if $k <= 9;
    return S('iv', v => pick(2, -1, 10))                       if $k == 10;
    return S('nv', v => pick(0.5, 2.5, 1.0, 0.0, -1.0, 3.0)) if $k == 11;
    return S('undef')                                          if $k == 12;
    return wrong_kind();
}

my @UNKNOWN_NUMS = (6, 31, 62, 63, 100, 1000, 19999, 536870911);

# Whole unknown fields for an `_unknown` entry of a level (the record's or an
# address's): unknown numbers, known numbers with another wire type, groups.
sub unknown_bytes {
    my $address = shift;
    my $out = '';
    for (1 .. 1 + rint(3)) {
        my $num = chance(3) ? ($address ? pick(1 .. 5) : pick(map { $NUM_OF{$_} } @NAMES)) : pick(@UNKNOWN_NUMS);
        if ($address) { $num = pick(6, 7, 100) if $num <= 5 && chance(3) }
        my @wts = (0, 1, 2, 3, 5);
        my $wt = pick(@wts);
        # A known number gets another wire type than its own.
        my $own_wt = $address ? ($num <= 5 ? 0 : -1) : do { my ($n) = grep { $NUM_OF{$_} == $num } @NAMES; defined $n ? ($KIND_OF{$n} =~ /^(uint32|uint64|bool)$/ ? 0 : 2) : -1 };
        $wt = pick(grep { $_ != $own_wt } @wts) if $wt == $own_wt;
        my $tag = QelCodec::encode_varint(($num << 3) | $wt);
        $out .= $wt == 0 ? $tag . QelCodec::encode_varint(rint(100000))
              : $wt == 1 ? $tag . rbytes(8)
              : $wt == 5 ? $tag . rbytes(4)
              : $wt == 2 ? do { my $p = rbytes(rint(6)); $tag . QelCodec::encode_varint(length $p) . $p }
              :            $tag . QelCodec::encode_varint((7 << 3) | 0) . "\x01" . QelCodec::encode_varint(($num << 3) | 4);
    }
    return $out;
}

# An `_unknown` value of a level.
sub unknown_recipe {
    my ($address, $good) = @_;
    my $k = rint($good ? 6 : 10);
    if ($k <= 5) {
        my @e;
        my $pos = rint(3);
        for (1 .. 1 + rint(3)) {
            my $hex = unpack 'H*', unknown_bytes($address);
            $hex = uc $hex if chance(5);
            push @e, S('str', v => (chance(8) ? '00' : '') . "$pos:$hex");
            $pos += rint(3);
        }
        if (!$good || chance(20)) {
            # One broken entry.
            my $i = rint(@e + 1);
            my $b = rint(11);
            my $bad = $b == 0 ? S('undef')
                    : $b == 1 ? wrong_kind()
                    : $b == 2 ? S('str', v => pick('x', '0:', ':ab', '0:abc', '0:zz', '-1:00', ' 0:30', '0:3 0', "0:30\n", '1e1:30', "0:\x{263A}"))
                    : $b == 3 ? S('str', v => '0:' . unpack 'H*', pick("\x00", "\x30", "\x32\x05ab", "\x33", "\x34", "\x36", "\x37\x00", "\x35\x01", "\x31\x01\x02",
                                                                      "\x80\x80\x80\x80\x80\x01", "\x30" . ("\xff" x 10) . "\x01", "\x33" x 101 . "\x34" x 101))
                    : $b == 4 ? S('str', v => '0:' . unpack 'H*', rbytes(1 + rint(8)))
                    : $b == 5 ? S('str', v => '0:' . unpack 'H*', $address ? "\x08\x01" : pick("\x0a\x00", "\xa0\x01\x05", "\x22\x00", "\xe2\x02\x00"))
                    : $b == 6 ? S('str', v => '9:' . unpack 'H*', "\x30\x01")    # positions decrease after it
                    : $b == 7 ? S('str', v => '0:' . unpack('H*', "\x30\x01") . unpack('H*', $address ? "\x10\x05" : "\xc8\x01\x05"))
                    : $b == 8 ? S('str', v => '0:' . unpack 'H*', "\x33" x 99 . "\x34" x 99)
                    :           S('iv', v => 5);
            splice @e, $i, 0, $bad;
        }
        return S('array', elems => \@e, trailing => chance(10) ? 1 : 0, bless => chance(20) ? 'QelFuzz::Other' : undef);
    }
    return S('undef') if $k <= 6;
    return wrong_kind() if $k <= 8;
    return S('str', v => '0:30');
}

# A misspelt or strange key of a level.
sub unknown_key {
    my @names = @_;
    my $k = rint(6);
    return pick('zzz', '', 'x', 'BOT', 'unknown', 'ip', 'q' x 40) if $k == 0;
    my $n = pick(@names);
    for (1 .. ($k == 5 ? 2 + rint(3) : 1 + rint(2))) {
        my $at = rint(length($n) + 1);
        my $e = rint(3);
        if ($e == 0 && length $n > 1) { substr($n, $at >= length $n ? $at - 1 : $at, 1) = '' }
        elsif ($e == 1) { substr($n, $at, 0) = pick('x', '_', 'a', 'E') }
        else { substr($n, $at >= length $n ? $at - 1 : $at, 1) = pick('z', 'o', '1') if length $n }
    }
    return $n;
}

sub address_recipe {
    my ($o, $good) = @_;
    my $k = rint($good ? 10 : 14);
    if ($k <= 6 || ($k <= 8 && $o->{addresses} ne 'text')) {
        my @keys;
        for my $w (@ADDR) {
            next unless chance(4) || $k <= 2;
            push @keys, [$w, $good || !chance(4) ? number_recipe($U32_MAX, 1) : number_recipe($U32_MAX, 0)];
            $keys[-1][1] = S('iv', v => rint(1000)) if $good && $keys[-1][1]{t} =~ /^(undef)$/ && 0;
        }
        push @keys, ['_unknown', unknown_recipe(1, $good || !chance(3))] if chance(6);
        push @keys, [unknown_key(@ADDR_KEYS), S('iv', v => 1)] if !$good && chance(3);
        @keys = map { $keys[$_] } sort { (rint(3) - 1) || $a <=> $b } 0 .. $#keys;
        return S('hash', keys => \@keys, how => pick('plain', 'plain', 'plain', 'tied', 'locked'),
                 bless => chance(15) ? 'QelFuzz::Other' : undef);
    }
    if ($k <= 8) {
        my %a = map { $_ => (chance(2) ? rint(256) : r64() >> 32) } @ADDR;
        $a{$_} = 0 for grep { chance(3) } qw(ip0 ip1 ip2);
        $a{rtdom_id} = 0 if chance(2);
        my $t = QelCodec::address_text(\%a);
        $t = pick("::ffff:1.2.3.4", "::1.2.3.4", "0:0:0:0:0:0:0:1", "1.2.3.4%0", "1.2.3.4%0004294967295", "::") if chance(5);
        return maybe_tied(S('str', v => $t));
    }
    return S('str', v => pick('1.2.3', '1.2.3.4 ', '[::1]', '01.2.3.4', '1.2.3.256', '1.2.3.4%', '1.2.3.4%4294967296',
                              '::1%12345678901', '', 'localhost', "1.2.3.4\0", '0x1.2.3.4', "\x{263A}", 'x' x 80, '1.2.3.4/24')) if $k <= 10;
    return S('iv', v => 5) if $k == 11;
    return S('undef') if $k == 12;
    return wrong_kind();
}

sub list_recipe {
    my ($o, $good) = @_;
    my $k = rint($good ? 10 : 14);
    if ($k <= 9 || $k == 13) {
        my @e = map { string_recipe($o, $good || !chance(3)) } 0 .. rint(5);
        @e = () if chance(10);
        if (!$good) {
            $e[ rint(@e + 1) ] = undef if chance(3);    # a hole
            $e[ rint(@e + 1) ] = S('undef') if chance(3);
        }
        $_ = S('undef') for grep { defined && $_->{t} eq 'undef' && $good } @e;
        @e = grep { !defined || $_->{t} ne 'undef' } @e if $good;
        return S('array', elems => \@e, trailing => !$good && chance(4) ? 1 + rint(2) : 0, bless => chance(15) ? 'QelFuzz::Other' : undef);
    }
    return S('undef') if $k == 10;
    return S('str', v => 'a') if $k == 11;
    return wrong_kind();
}

sub field_recipe {
    my ($name, $o, $good) = @_;
    my $kind = $KIND_OF{$name};
    my $s = $kind eq 'string'  ? string_recipe($o, $good)
          : $kind eq 'uint32'  ? number_recipe($U32_MAX, $good)
          : $kind eq 'uint64'  ? number_recipe($U64_MAX, $good)
          : $kind eq 'bool'    ? bool_recipe($good)
          : $kind eq 'address' ? address_recipe($o, $good)
          :                      list_recipe($o, $good);
    # Valid recipes of the string family may still be wrong for the options.
    return $s;
}

# record_recipe($o): a hash argument for encode, mostly valid.
sub record_recipe {
    my $o = shift;
    my $good = chance(3) ? 0 : 1;
    my @keys;
    my $n = pick(0, 1, 2, 3, 5, 8, 13, 20, scalar @NAMES);
    my %used;
    for (1 .. $n) {
        my $name = pick(@NAMES);
        next if $used{$name}++;
        push @keys, [$name, field_recipe($name, $o, $good || !chance(4))];
    }
    push @keys, ['_unknown', unknown_recipe(0, $good || !chance(3))] if chance(5);
    push @keys, [unknown_key(@KNOWN_KEYS), S('str', v => 'x')] if !$good && chance(3);
    push @keys, [unknown_key(@KNOWN_KEYS), S('dies')] if !$good && chance(10);
    my $how = pick(('plain') x 8, 'tied', 'locked');
    my $s = S('hash', keys => \@keys, how => $how, bless => $how eq 'plain' && chance(20) ? 'QelFuzz::Other' : undef);
    return chance(30) ? S('tied', inner => $s, n => \(my $c = 0)) : $s;
}

# ---- the model of encode ------------------------------------------------------------

# Each model function returns ('ok', ...), ('err', $text) or ('die', $text),
# and notes the tied recipes it fetches in @FETCHED.
my @FETCHED;

sub fetch_recipe {
    my $s = shift;
    while ($s->{t} eq 'tied') { push @FETCHED, $s; $s = $s->{inner} }
    return $s;
}

sub desc_of {
    my $s = shift;
    my $t = $s->{t};
    return 'undef' if $t eq 'undef';
    return 'a glob' if $t eq 'glob';
    return 'a string' if $t eq 'str';
    return 'a number' if $t eq 'iv' || $t eq 'nv';
    if ($t eq 'ref' || $t eq 'boolobj') { my @d = QelCodec::describe($s->{make}->()); return $d[-1] }
    return $s->{bless} ? "a $s->{bless} object" : 'a hash reference' if $t eq 'hash';
    return $s->{bless} ? "a $s->{bless} object" : 'an array reference' if $t eq 'array';
    die "no description of a recipe of kind $t\n";
}

sub text_of_recipe { my $s = shift; my $v = $s->{v}; return "$v" }

sub is_hash_recipe { my $s = shift; return $s->{t} eq 'hash' || ($s->{t} eq 'ref' && reftype($s->{make}->()) eq 'HASH') }

# as_container($recipe): a reference made by a 'ref' recipe as the hash or array
# recipe of what it holds (an empty hash, an object of a hash, [1]).
sub as_container {
    my $s = shift;
    return $s unless $s->{t} eq 'ref';
    my $v = $s->{make}->();
    my $class = blessed $v;
    return S('hash', keys => [ map { [$_, S('str', v => $v->{$_})] } sort keys %$v ], how => 'plain', bless => $class)
        if reftype $v eq 'HASH';
    return S('array', elems => [ map { S('iv', v => $_) } @$v ], trailing => 0, bless => $class) if reftype $v eq 'ARRAY';
    return $s;
}

# uint32/uint64: ('ok', $decimal) or ('err', $text).
sub model_number {
    my ($s, $path, $max) = @_;
    my $t = $s->{t};
    return ('err', "$path: expected an integer, got " . desc_of($s)) if $t =~ /^(ref|boolobj|glob|hash|array)$/;
    my $shown = $t eq 'str' ? QelCodec::display($s->{v}) : QelCodec::display('' . $s->{v});
    my $over = sub { my $d = shift; $d =~ s/\A0+(?=.)//; length $d > length $max || (length $d == length $max && $d gt $max) };
    if ($t eq 'str') {
        my $v = $s->{v};
        return ('err', "$path: $shown is not a decimal integer") unless $v =~ /\A[0-9]+\z/;
        return ('err', "$path: $shown is out of range (0..$max)") if $over->($v);
        (my $d = $v) =~ s/\A0+(?=.)//;
        return ('ok', $d);
    }
    if ($t eq 'iv') {
        my $v = $s->{v};
        return ('err', "$path: $shown is out of range (0..$max)") if $v < 0 || $over->("$v");
        return ('ok', "$v");
    }
    my $v = $s->{v};    # nv
    return ('err', "$path: $shown is not an integer") if $v != $v || $v == 9**9**9 || $v == -9**9**9 || $v != int $v;
    return ('err', "$path: $shown is out of range (0..$max)") if $v < 0 || $v >= ($max eq $U64_MAX ? 18446744073709551616.0 : 4294967296.0);
    return ('ok', sprintf '%.0f', $v);
}

sub model_flag {
    my ($s, $path) = @_;
    my $t = $s->{t};
    my $expected = '(1, 0, "" or a JSON boolean)';
    return ('ok', $s->{truth} ? 1 : 0) if $t eq 'boolobj';
    return ('err', "$path: expected a flag $expected, got " . desc_of($s)) if $t =~ /^(ref|glob|hash|array)$/;
    my $v = $s->{v};
    if ($t eq 'str') { return ('ok', $v eq '1' ? 1 : 0) if $v eq '' || $v eq '0' || $v eq '1' }
    elsif ($t eq 'iv') { return ('ok', $v) if $v == 0 || $v == 1 }
    elsif ($t eq 'nv') { return ('ok', $v == 1 ? 1 : 0) if $v == 0 || $v == 1 }    # 1.0 and 0.0 pass, on purpose
    return ('err', "$path: " . QelCodec::display('' . $v) . " is not a flag $expected");
}

# A string: ('ok', $bytes) or ('err', $text).
sub model_string {
    my ($s, $path, $o) = @_;
    my $t = $s->{t};
    return ('err', "$path: expected a string, got " . desc_of($s)) if $t =~ /^(ref|boolobj|glob|hash|array|undef)$/;
    my $v = '' . $s->{v};
    if (utf8::is_utf8($v)) {
        if ($o->{characters}) {
            my ($bytes, $cp) = QelCodec::chars_to_bytes($v);
            return ('err', sprintf "%s: character U+%04X cannot be written as UTF-8", $path, $cp) unless defined $bytes;
            return ('ok', $bytes);
        }
        if ($v =~ /([^\x00-\xFF])/) { return ('err', sprintf "%s: wide character U+%04X in a byte string (use the characters option)", $path, ord $1) }
        utf8::downgrade($v);
        return ('ok', $v);
    }
    return ('ok', $v) unless $o->{characters};
    my $c = $v;
    utf8::upgrade($c);
    utf8::encode($c);
    return ('ok', $c);
}

# `_unknown` of a level: ('ok', [[pos, bytes], ...]) or an error.
sub model_unknown {
    my ($s, $path, $address, $depth) = @_;
    $s = fetch_recipe($s);
    return ('die', $FETCH_DIED) if $s->{t} eq 'dies';
    return ('ok', []) if $s->{t} eq 'undef';
    return ('err', "$path: expected an array reference, got " . desc_of($s)) unless $s->{t} eq 'array' || ($s->{t} eq 'ref' && reftype($s->{make}->()) eq 'ARRAY');
    return ('err', "$path: expected an array reference, got " . desc_of($s)) if $s->{t} eq 'ref' && @{ $s->{make}->() } && 0;
    my @runs;
    my $previous = 0;
    my @elems = $s->{t} eq 'array' ? (@{ $s->{elems} }, (undef) x $s->{trailing}) : map { S('iv', v => $_) } @{ $s->{make}->() };
    for my $i (0 .. $#elems) {
        my $e = $elems[$i];
        my $p = "$path\[$i]";
        return ('err', "$p: expected a string, got undef") unless defined $e;
        $e = fetch_recipe($e);
        return ('die', $FETCH_DIED) if $e->{t} eq 'dies';
        return ('err', "$p: expected a string, got " . desc_of($e)) if $e->{t} ne 'str' && $e->{t} ne 'iv' && $e->{t} ne 'nv';
        my $text = text_of_recipe($e);
        my $bytes_text = $text;
        utf8::encode($bytes_text) if utf8::is_utf8($bytes_text);
        my ($pos, $hex) = $bytes_text =~ /\A([0-9]+):((?:[0-9a-fA-F]{2})+)\z/;
        return ('err', "$p: " . QelCodec::display($text) . ' is not POSITION:HEX') unless defined $pos;
        $pos =~ s/\A0+(?=.)//;
        $pos = length $pos > 18 ? 1e18 : 0 + $pos;
        return ('err', "$p: positions must not decrease") if $pos < $previous;
        $previous = $pos;
        my $bytes = pack 'H*', $hex;
        my @pr = QelCodec::entry_problem($bytes, $address ? QelCodec::ADDRESS_LEVEL() : QelCodec::RECORD_LEVEL(), $depth);
        return ('err', "$p: field $pr[1] ($pr[2]) belongs in its own key") if @pr && $pr[0] eq 'own';
        return ('err', "$p: malformed wire data at byte $pr[1]: $pr[2]") if @pr;
        push @runs, [$pos, $bytes];
    }
    return ('ok', \@runs);
}

# The keys a hash recipe has, as a hash of key => recipe (the last of a key
# given twice).
sub keys_of { my $s = shift; return { map { ($_->[0] => $_->[1]) } @{ $s->{keys} } } }

# The first unknown key of a level (sorted), as its error text.
sub unknown_key_error {
    my ($keys, $known, $prefix) = @_;
    my %k = map { $_ => 1 } @$known;
    my ($first) = sort grep { !$k{$_} } keys %$keys;
    return undef unless defined $first;
    my $near = QelCodec::suggestion($first, @$known);
    return $prefix . 'unknown field ' . QelCodec::display($first) . (defined $near ? " (did you mean \"$near\"?)" : '');
}

# Writes items (each [bytes]) with runs ([pos, bytes]) inserted: a run at
# POS goes after the first POS items, and after all of them when POS is
# larger. Returns the bytes and the `_unknown` entries a decode gives back.
sub weave {
    my ($items, $runs) = @_;
    my $out = '';
    my @entries;
    my $r = 0;
    my $last_pos;
    for my $i (0 .. scalar @$items) {
        my $hex = '';
        while ($r < @$runs && ($runs->[$r][0] <= $i || $i == @$items)) { $out .= $runs->[$r][1]; $hex .= unpack 'H*', $runs->[$r][1]; $r++ }
        push @entries, "$i:$hex" if length $hex;
        $out .= $items->[$i] if $i < @$items;
    }
    return ($out, \@entries);
}

sub varint { QelCodec::encode_varint($_[0]) }
sub ld { my ($num, $payload) = @_; varint(($num << 3) | 2) . varint(length $payload) . $payload }

# model_address($recipe, $name, $o): ('ok', $payload, $decoded) or an error.
sub model_address {
    my ($s, $name, $o) = @_;
    if (!is_hash_recipe($s)) {
        return ('err', "$name: expected a hash reference, got " . desc_of($s)) unless $o->{addresses} eq 'text';
        return ('err', "$name: expected an address text or a hash reference, got " . desc_of($s)) if $s->{t} !~ /^(str|iv|nv)$/;
        my $text = text_of_recipe($s);
        my $a = QelCodec::parse_address_text($text);
        unless ($a) {
            return ('err', "$name: invalid address text " . QelCodec::display($text, 64));
        }
        my $payload = join '', map { varint(($_ + 1) << 3) . varint($a->{ $ADDR[$_] }) } 0 .. $#ADDR;
        return ('ok', $payload, QelCodec::address_text($a));
    }
    $s = as_container($s);
    my $keys = keys_of($s);
    my $runs = [];
    if (exists $keys->{_unknown} && $o->{unknown_fields} eq 'keep') {
        my @r = model_unknown($keys->{_unknown}, "$name._unknown", 1, 1);
        return @r unless $r[0] eq 'ok';
        $runs = $r[1];
    }
    my (@items, %words);
    for my $w (@ADDR) {
        next unless exists $keys->{$w};
        my $v = fetch_recipe($keys->{$w});
        return ('die', $FETCH_DIED) if $v->{t} eq 'dies';
        next if $v->{t} eq 'undef';
        my @r = model_number($v, "$name.$w", $U32_MAX);
        return @r unless $r[0] eq 'ok';
        $words{$w} = $r[1];
        push @items, varint($ADDR_NUM{$w} << 3) . varint($r[1]);
    }
    my $err = unknown_key_error($keys, \@ADDR_KEYS, "$name: ");
    return ('err', $err) if defined $err;
    my ($payload, $entries) = weave(\@items, $runs);
    my $decoded;
    if ($o->{addresses} eq 'text' && keys(%words) == 5 && !@$entries) { $decoded = QelCodec::address_text(\%words) }
    else { $decoded = {%words}; $decoded->{_unknown} = $entries if @$entries }
    return ('ok', $payload, $decoded);
}

# model_encode($recipe, $o): ('ok', $bytes, $decoded_hash, $class_same) or an
# error; $class_same tells whether the record class reads the hash the same
# way (so that its pack gives the same bytes).
sub model_encode {
    my ($s, $o) = @_;
    @FETCHED = ();
    $s = fetch_recipe($s);
    return ('die', $FETCH_DIED) if $s->{t} eq 'dies';
    return ('err', 'expected a hash reference, got ' . desc_of($s)) unless is_hash_recipe($s);
    $s = as_container($s);
    my $keys = keys_of($s);
    my $same = $s->{how} ne 'tied' && !$s->{bless} && !$o->{characters} && $o->{addresses} eq 'hash';
    my $runs = [];
    if (exists $keys->{_unknown} && $o->{unknown_fields} eq 'keep') {
        my @r = model_unknown($keys->{_unknown}, '_unknown', 0, 0);
        return @r unless $r[0] eq 'ok';
        $runs = $r[1];
        $same = 0 if @$runs;
    }
    my (@items, %decoded);
    for my $name (@NAMES) {
        next unless exists $keys->{$name};
        my $raw = $keys->{$name};
        $same = 0 if $raw->{t} eq 'tied';
        my $v = fetch_recipe($raw);
        return ('die', $FETCH_DIED) if $v->{t} eq 'dies';
        if ($v->{t} eq 'undef') { $same = 0; next }
        my $kind = $KIND_OF{$name};
        my $num = $NUM_OF{$name};
        if ($kind eq 'string') {
            my @r = model_string($v, $name, $o);
            return @r unless $r[0] eq 'ok';
            $same = 0 if $v->{t} eq 'str' && utf8::is_utf8($v->{v});
            push @items, ld($num, $r[1]);
            $decoded{$name} = $o->{characters} ? QelCodec::bytes_to_chars($r[1]) : $r[1];
        }
        elsif ($kind eq 'uint32' || $kind eq 'uint64') {
            my @r = model_number($v, $name, $kind eq 'uint32' ? $U32_MAX : $U64_MAX);
            return @r unless $r[0] eq 'ok';
            $same = 0 if $kind eq 'uint64' && ($v->{t} eq 'nv' || ($v->{t} eq 'str' && $v->{v} =~ /\A0./));
            push @items, varint($num << 3) . varint($r[1]);
            $decoded{$name} = $r[1];
        }
        elsif ($kind eq 'bool') {
            my @r = model_flag($v, $name);
            return @r unless $r[0] eq 'ok';
            $same = 0 if $v->{t} eq 'boolobj';
            push @items, varint($num << 3) . chr($r[1]);
            $decoded{$name} = $r[1];
        }
        elsif ($kind eq 'address') {
            my @r = model_address($v, $name, $o);
            return @r unless $r[0] eq 'ok';
            $same = 0 if $v->{t} ne 'hash' || $v->{bless} || $v->{how} ne 'plain' || grep { $_->[0] eq '_unknown' || $_->[1]{t} ne 'iv' } @{ $v->{keys} };
            push @items, ld($num, $r[1]);
            $decoded{$name} = $r[2];
        }
        else {
            return ('err', "$name: expected an array reference, got " . desc_of($v))
                unless $v->{t} eq 'array' || ($v->{t} eq 'ref' && reftype($v->{make}->()) eq 'ARRAY');
            $v = as_container($v);
            my @elems = (@{ $v->{elems} }, (undef) x $v->{trailing});
            my @list;
            for my $i (0 .. $#elems) {
                return ('err', "$name\[$i]: expected a string, got undef") unless defined $elems[$i];
                $same = 0 if $elems[$i]{t} eq 'tied';
                my $e = fetch_recipe($elems[$i]);
                return ('die', $FETCH_DIED) if $e->{t} eq 'dies';
                return ('err', "$name\[$i]: expected a string, got undef") if $e->{t} eq 'undef';
                my @r = model_string($e, "$name\[$i]", $o);
                return @r unless $r[0] eq 'ok';
                $same = 0 if $e->{t} eq 'str' && utf8::is_utf8($e->{v});
                push @items, ld($num, $r[1]);
                push @list, $o->{characters} ? QelCodec::bytes_to_chars($r[1]) : $r[1];
            }
            $decoded{$name} = \@list if @list;
        }
    }
    my $err = unknown_key_error($keys, \@KNOWN_KEYS, '');
    return ('err', $err) if defined $err;
    my ($bytes, $entries) = weave(\@items, $runs);
    $decoded{_unknown} = $entries if @$entries;
    return ('ok', $bytes, \%decoded, $same);
}

# ---- the calls -------------------------------------------------------------------------

# The text of a decoded hash for comparisons: strings of ASCII characters as
# bytes (the codec may flag them or not under the characters option).
sub codec_canon {
    my ($v, $chars) = @_;
    my $norm;
    $norm = sub {
        my $x = shift;
        return { map { ($_ => $norm->($x->{$_})) } keys %$x } if ref $x eq 'HASH';
        return [ map { $norm->($_) } @$x ] if ref $x eq 'ARRAY';
        return $x if ref $x || !defined $x || !$chars || $x =~ /[^\x00-\x7F]/;
        my $s = $x;
        utf8::downgrade($s);
        return $s;
    };
    return canon($norm->($v));
}

sub codec_problem {
    my ($what, $text) = @_;
    $what = $what->() if ref $what eq 'CODE';
    problem("$text\n  in $what");
}

# The outcome of a codec call: ('', @results) or (error text). Only the
# call a check is about counts ($counted), not those that check its result.
sub codec_try {
    my ($code, $counted) = @_;
    my @r;
    local $@;
    my $ok = eval { @r = $code->(); 1 };
    return $ok ? ('', @r) : (clean_message($@)) unless $counted;
    $CALLS++;
    $CODEC_CALLS++;
    if (!$ok) {
        my $e = clean_message($@);
        $RAISED++;
        $CODEC_RAISED++;
        (my $key = $e) =~ s/"[^"]*"/"..."/g;
        $key =~ s/[0-9]+/N/g;
        $MESSAGES{$key}++;
        return ($e);
    }
    return ('', @r);
}

sub recipe_desc {
    my $s = shift;
    require Data::Dumper;
    no warnings 'once';
    local $Data::Dumper::Indent = 0;
    local $Data::Dumper::Sortkeys = 1;
    local $Data::Dumper::Useqq = 1;
    my $clean;
    $clean = sub {
        my $x = shift;
        return $x unless ref $x eq 'HASH';
        my %c = %$x;
        $c{make} = desc_of($x) if exists $c{make};
        delete $c{n};
        $c{inner} = $clean->($c{inner}) if $c{inner};
        $c{keys} = [ map { [$_->[0], $clean->($_->[1])] } @{ $c{keys} } ] if $c{keys};
        $c{elems} = [ map { defined $_ ? $clean->($_) : 'HOLE' } @{ $c{elems} } ] if $c{elems};
        return \%c;
    };
    my $d = Data::Dumper::Dumper($clean->($s));
    $d =~ s/^\$VAR1 = //;
    return length $d > 4000 ? substr($d, 0, 4000) . "..." : $d;
}

sub check_fetches {
    my ($what, $recipe, $done) = @_;
    my %fetched = map { (refaddr($_) => 1) } @FETCHED;
    for my $t (tied_recipes($recipe)) {
        my $n = ${ $t->{n} };
        my $want = $fetched{ refaddr $t } ? 1 : 0;
        next if $n == $want;
        codec_problem($what, "a tied value was fetched $n times, expected $want");
        last;
    }
}

# One call of encode_event or encode with a random hash.
sub codec_encode_call {
    my @objs = codec_objects();
    my $which = rint(9);
    my ($o, $c) = $which == 8 ? (\%DEFAULT_OPTS, undef) : ($CODEC_OPTS[$which], $objs[$which]);
    my $recipe = chance(25) ? pick(wrong_kind(), S('undef'), S('str', v => 'x'), S('iv', v => 1), S('array', elems => [], trailing => 0))
                          : record_recipe($o);
    my $arg;
    put(\$arg, $recipe);
    my $before = snapshot($arg);
    my @expect = model_encode($recipe, $o);
    my $fname = $c ? 'encode' : 'encode_event';
    my $what = sub { ($c ? "$CODEC->new(" . join(', ', map { "$_ => $o->{$_}" } sort keys %$o) . ')->encode' : 'encode_event')
        . '(' . recipe_desc($recipe) . ')' };    # made only when needed: it takes longer than the call
    print "call $CALLS: ", $what->(), "\n" if $opt->{trace};
    my ($err, $bytes) = codec_try(sub { $c ? $c->encode($arg) : quillon_event_log::Codec::encode_event($arg) }, 1);
    check_fetches($what, $recipe, $err eq '');
    my $after = snapshot($arg);
    codec_problem($what, "the argument changed:\n  before $before\n  after  $after") if $before ne $after;
    if ($expect[0] ne 'ok') {
        return codec_problem($what, "returned, expected '$expect[1]'") if $err eq '';
        return codec_problem($what, "died of '$err', expected '$expect[1]'") if $err ne $expect[1];
        return;
    }
    return codec_problem($what, "died of '$err', expected bytes " . unpack('H*', substr $expect[1], 0, 60)) if $err ne '';
    return codec_problem($what, 'returned ' . (defined $bytes ? 'a reference' : 'undef') . ', not bytes') if !defined $bytes || ref $bytes;
    return codec_problem($what, 'returned a string with the UTF-8 flag') if utf8::is_utf8($bytes);
    if ($bytes ne $expect[1]) {
        return codec_problem($what, 'returned ' . unpack('H*', substr $bytes, 0, 80) . ', expected ' . unpack('H*', substr $expect[1], 0, 80)
            . ' (' . length($bytes) . ' and ' . length($expect[1]) . ' bytes)');
    }
    my ($e2, $h) = codec_try(sub { $c ? $c->decode($bytes) : quillon_event_log::Codec::decode_event($bytes) });
    return codec_problem($what, "decoding the result died of '$e2'") if $e2 ne '';
    my ($got, $want) = (codec_canon($h, $o->{characters}), codec_canon($expect[2], $o->{characters}));
    codec_problem($what, "decodes to $got, expected $want") if $got ne $want;
    if ($expect[3]) {
        my $r = eval { $CLASS->new($arg) };
        if ($r) {
            my $p = $r->length ? $r->pack : '';
            codec_problem($what, 'the record class packs the same hash as ' . unpack('H*', substr $p, 0, 80)) if $p ne $bytes;
        }
    }
}

# Bytes to decode: a valid encoding, a cut or changed one, random bytes.
sub decode_recipe {
    my $o = shift;
    my $k = rint(14);
    if ($k <= 6) {
        my $recipe;
        my @r;
        for (1 .. 5) { $recipe = record_recipe($o); @r = model_encode($recipe, $o); last if $r[0] eq q(ok) }
        my $b = $r[0] eq 'ok' ? $r[1] : '';
        $b = substr $b, 0, rint(length($b) + 1) if $k == 5;
        if ($k == 6 && length $b) { vec($b, rint(length($b) * 8), 1) ^= 1 }
        return maybe_tied(S('str', v => $b));
    }
    return S('str', v => wire_bytes()) if $k == 7;
    return S('str', v => rbytes(rint(20))) if $k == 8;
    if ($k == 9) { my $b = "\x0a\x03\xe9t\xe9"; utf8::upgrade($b); return S('str', v => $b) }    # downgradable
    return S('str', v => "\x0a\x03\x{263A}") if $k == 10;
    return S('iv', v => pick(5, 0, 8)) if $k == 11;
    return S('undef') if $k == 12;
    return wrong_kind();
}

# One call of decode_event or decode.
sub codec_decode_call {
    my @objs = codec_objects();
    my $which = rint(9);
    my ($o, $c) = $which == 8 ? (\%DEFAULT_OPTS, undef) : ($CODEC_OPTS[$which], $objs[$which]);
    my $recipe = decode_recipe($o);
    my $arg;
    put(\$arg, $recipe);
    @FETCHED = ();
    my $s = fetch_recipe($recipe);
    my $what = sub { ($c ? "$CODEC->new(" . join(', ', map { "$_ => $o->{$_}" } sort keys %$o) . ')->decode' : 'decode_event')
        . '(' . recipe_desc($recipe) . ')' };
    print "call $CALLS: ", $what->(), "\n" if $opt->{trace};
    my @expect;
    my $bytes;
    if ($s->{t} eq 'dies') { @expect = ($FETCH_DIED) }
    elsif ($s->{t} !~ /^(str|iv|nv)$/) { @expect = ('expected a byte string, got ' . desc_of($s)) }
    else {
        $bytes = text_of_recipe($s);
        if (utf8::is_utf8($bytes) && $bytes =~ /[^\x00-\xFF]/) { @expect = ('wide character in the bytes to decode') }
        else {
            utf8::downgrade($bytes) if utf8::is_utf8($bytes);
            my @f = QelCodec::wire_faults($bytes);
            @expect = @f ? ("malformed record at byte $f[0][0]: $f[0][1]") : ('');
        }
    }
    my ($err, $h) = codec_try(sub { $c ? $c->decode($arg) : quillon_event_log::Codec::decode_event($arg) }, 1);
    check_fetches($what, $recipe, 1);
    return codec_problem($what, ($err eq '' ? 'returned' : "died of '$err'") . ', expected ' . ($expect[0] eq '' ? 'a hash' : "'$expect[0]'"))
        if $err ne $expect[0];
    return if $err ne '';
    return codec_problem($what, 'returned ' . (defined $h ? "'$h'" : 'undef') . ', not a hash reference') unless ref $h eq 'HASH';
    # Against the record class's reading of the same bytes.
    my $cls = $CLASS->new;
    return codec_problem($what, 'the record class refuses the bytes') unless $cls->unpack($bytes);
    my $keep = $o->{unknown_fields} eq 'keep' && $o->{addresses} eq 'hash' ? $h : quillon_event_log::Codec::decode_event($bytes);
    my $want = QelCodec::class_to_codec_form($cls->to_hashref, $o, $keep);
    if ($o->{unknown_fields} eq 'keep') {
        my @runs = QelCodec::unknown_runs($bytes);
        $want->{_unknown} = \@runs if @runs;
        for my $name (grep { ref $want->{$_} eq 'HASH' } keys %$want) {
            $want->{$name}{_unknown} = $keep->{$name}{_unknown} if ref $keep->{$name} eq 'HASH' && $keep->{$name}{_unknown};
        }
    }
    my ($got, $w) = (codec_canon($h, $o->{characters}), codec_canon($want, $o->{characters}));
    codec_problem($what, "gives $got, expected $w") if $got ne $w;
}

# new, the accessors, wrong argument counts and invocants.
sub codec_other_call {
    my $k = rint(10);
    if ($k <= 3) {
        my @args;
        my %o = %DEFAULT_OPTS;
        my $expect = '';
        for (0 .. rint(4)) {
            my $c = rint(12);
            my ($key, $v) = $c <= 2 ? ('characters', pick(0, 1, '', 'yes', undef, 2))
                          : $c <= 5 ? ('addresses', pick('hash', 'text', 'Text', 'x', ''))
                          : $c <= 8 ? ('unknown_fields', pick('keep', 'drop', 'Drop', 'ignore'))
                          : (pick('foo', 'character', 'Addresses', ''), 1);
            push @args, $key, $v;
            next if $expect ne '';
            if ($key eq 'characters') { $o{characters} = $v ? 1 : 0 }
            elsif ($key eq 'addresses') {
                if ($v eq 'hash' || $v eq 'text') { $o{addresses} = $v }
                else { $expect = "option addresses must be \"hash\" or \"text\", not \"$v\"" }
            }
            elsif ($key eq 'unknown_fields') {
                if ($v eq 'keep' || $v eq 'drop') { $o{unknown_fields} = $v }
                else { $expect = "option unknown_fields must be \"keep\" or \"drop\", not \"$v\"" }
            }
            else { $expect = "unknown option \"$key\" (known options: addresses, characters, unknown_fields)" }
        }
        if (chance(6)) { push @args, 'characters' }
        $expect = 'odd number of options' if @args % 2;
        my $what = "$CODEC->new(" . join(', ', map { defined $_ ? "'$_'" : 'undef' } @args) . ')';
        my ($err, $c) = codec_try(sub { $CODEC->new(@args) }, 1);
        return codec_problem($what, ($err eq '' ? 'returned' : "died of '$err'") . ', expected ' . ($expect eq '' ? 'an object' : "'$expect'"))
            if $err ne $expect && !($expect eq 'odd number of options' && $err =~ /\A(?:unknown option|option )/ && 0);
        return if $err ne '';
        return codec_problem($what, 'returned ' . (defined $c ? "'$c'" : 'undef') . ", not a $CODEC object") unless ref $c eq $CODEC;
        my @got = map { my $m = $_; my ($e, $v) = codec_try(sub { $c->$m }); $e eq '' ? $v : "died: $e" } qw(characters addresses unknown_fields);
        my @want = ($o{characters}, $o{addresses}, $o{unknown_fields});
        codec_problem($what, "the accessors give (@got), expected (@want)") if "@got" ne "@want";
        return;
    }
    # Wrong argument counts and invocants.
    my @objs = codec_objects();
    my $obj = pick(@objs);
    my $m = pick(qw(encode_event decode_event encode decode));
    my %usage = (encode_event => 'hashref', decode_event => 'bytes', encode => 'self, hashref', decode => 'self, bytes');
    my $code = \&{"quillon_event_log::Codec::$m"};
    my $method = $m eq 'encode' || $m eq 'decode';
    my $want = $method ? 2 : 1;
    my $n = pick(grep { $_ != $want } 0 .. 3);
    my @args = map { pick({}, '', $obj) } 1 .. $n;
    my $expect = "Usage: quillon_event_log::Codec::$m($usage{$m})";
    if ($k <= 6) {
        if ($method) {
            # The right count with a wrong invocant.
            my $self = pick('quillon_event_log::Codec', undef, {}, QelFuzz::Other->new, bless(\(my $x = 7), 'QelFuzz::Other'), 1);
            @args = ($self, $m eq 'encode' ? {} : '');
            $expect = 'self is not a quillon_event_log::Codec object';
        }
        else {
            @args = ();
        }
    }
    my $what = "quillon_event_log::Codec::$m(" . scalar(@args) . ' arguments)';
    my ($err) = codec_try(sub { $code->(@args) }, 1);
    codec_problem($what, ($err eq '' ? 'returned' : "died of '$err'") . ", expected '$expect'") if $err ne $expect;
}

sub codec_call {
    my $k = rint(10);
    return codec_encode_call() if $k <= 5;
    return codec_decode_call() if $k <= 8;
    return codec_other_call();
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
        ($opt->{codec} ? ('codec calls' => $CODEC_CALLS, 'codec exceptions' => $CODEC_RAISED) : ()),
        problems => $PROBLEMS);
}

sub main {
    local $SIG{__WARN__} = sub { $WARNINGS++ };    # perl's conversion warnings: expected
    fill_pool() unless $opt->{'codec-only'};
    my $step = $opt->{count} >= 10 ? int($opt->{count} / 10) : 0;
    my $next = $step;
    while ($CALLS < $opt->{count}) {
        if ($opt->{'codec-only'} || ($opt->{codec} && chance(4))) {
            codec_call();
            if ($step && $CALLS >= $next && !$opt->{quiet}) {
                print "  $CALLS calls\n";
                $next += $step;
            }
            next;
        }
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
