# No Perl value leaks from any method family, on success and on every error
# path: usage errors, type errors, a tied argument that dies inside a
# method, and handles the module did not make (forged ones croak, objects
# reblessed out of the classes are still freed).  C++ memory is checked by
# running the suite under valgrind.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest;

BEGIN {
    eval { require Test::LeakTrace; Test::LeakTrace->import; 1 }
        or plan skip_all => 'Test::LeakTrace not installed (apt-get install libtest-leaktrace-perl)';
}
use quillon_event_log::QuillonEventLog;

my $C = 'quillon_event_log::QuillonEventLog';
my $A = 'quillon_event_log::IPAddr';

package Dies {
    sub TIESCALAR { bless {}, shift }
    sub FETCH     { die "fetch died\n" }
}

my %full = (
    bot_name => 'curl', client_ip => { ip0 => 1, rtdom_id => 7 }, dest_ip => {},
    src_port => 443, device_id => '18446744073709551615', mobile_is_app => 1,
    anomalies => [ 'a', '', 'c' ], anomaly_categories => ['x'], host => "h\0st",
);
my $bytes = $C->new(\%full)->pack;

my %cases = (
    'new, every shape'        => sub { no warnings 'uninitialized'; $C->new; $C->new(\%full); $C->new($bytes); $C->new(undef); $C->new(1, 2) },
    'string family'           => sub { my $r = $C->new; $r->set_host('x'); $r->host; $r->has_host; $r->clear_host },
    'uint32 family'           => sub { my $r = $C->new; $r->set_src_port(-1); $r->src_port; $r->has_src_port; $r->clear_src_port },
    'uint64 family'           => sub { my $r = $C->new; $r->set_device_id('0x10'); $r->device_id; $r->has_device_id; $r->clear_device_id },
    'bool family'             => sub { my $r = $C->new; $r->set_mobile_is_app(2); $r->mobile_is_app; $r->has_mobile_is_app; $r->clear_mobile_is_app },
    'address family'          => sub { my $r = $C->new(\%full); my $a = $r->client_ip; $r->set_dest_ip($a); $r->has_dest_ip; $r->clear_client_ip },
    'list family'             => sub { my $r = $C->new(\%full); my @l = $r->anomalies; $r->anomalies(1); $r->anomalies(9); $r->add_anomalies('d'); $r->anomalies_size; $r->clear_anomalies },
    'whole-record methods'    => sub {
        my $r = $C->new(\%full); my $o = $C->new;
        $o->copy_from($r); $o->merge_from($r); $o->copy_from(\%full); $o->merge_from(\%full);
        $o->clear; $r->is_initialized; $r->error_string; $r->discard_unkown_fields;
        $r->debug_string; $r->short_debug_string; my @f = $r->fields;
    },
    'pack, unpack, length'    => sub { my $r = $C->new(\%full); my $b = $r->pack; $r->unpack($b); $r->unpack("\x0a\x05ab"); $r->length; $C->new->pack },
    'to_hashref'              => sub { my $h = $C->new(\%full)->to_hashref },
    'address class'           => sub { my $a = $A->new({ ip0 => 1 }); $a->set_ip1(2); $a->ip1; $a->has_ip2; $a->clear_ip0; my $h = $a->to_hashref },
    'explicit DESTROY'        => sub { my $r = $C->new(\%full); $r->DESTROY; $r->pack; my $h = $r->to_hashref },
    'usage errors'            => sub { my $r = $C->new; eval { $r->bot_name(1) }; eval { $r->set_bot_name }; eval { $r->anomalies(1, 2) }; eval { $C->new('X') } },
    'type errors'             => sub { my $r = $C->new; eval { $r->set_dest_ip({}) }; eval { quillon_event_log::QuillonEventLog::pack({}) }; eval { $C->can('host')->([]) } },
    'empty handle errors'     => sub { my $z = bless \(my $x = 0), $C; eval { $z->has_host }; eval { $z->set_src_port(1) }; eval { $z->add_anomalies('a') } },
    'tied value dies in a setter' => sub {
        my $r = $C->new; tie my $t, 'Dies';
        eval { $r->set_host($t) }; eval { $r->set_src_port($t) }; eval { $r->set_device_id($t) }; eval { $r->add_anomalies($t) };
    },
    'tied value dies in a hash' => sub {
        tie my $t, 'Dies';
        eval { $C->new({ bot_name => 'a', host => $t }) };
        my $r = $C->new; eval { $r->copy_from({ bot_name => 'a', host => $t }) }; eval { $r->merge_from({ anomalies => [ 'a', $t ] }) };
        eval { $A->new({ ip0 => $t }) };
    },
);

# Every method of both classes, by name, with the argument count it takes.
my @record_methods = (
    [ new => 1 ], map({ [ $_ => 1 ] } qw(DESTROY clear is_initialized error_string discard_unkown_fields
        debug_string short_debug_string pack length fields to_hashref)),
    map({ [ $_ => 2 ] } qw(copy_from merge_from unpack)),
);
for my $f ($C->fields) {
    if ($f eq 'anomalies' || $f eq 'anomaly_categories') {
        push @record_methods, [ "${f}_size" => 1 ], [ "clear_$f" => 1 ], [ $f => 1 ], [ "add_$f" => 2 ];
    }
    else {
        push @record_methods, [ "has_$f" => 1 ], [ "clear_$f" => 1 ], [ $f => 1 ], [ "set_$f" => 2 ];
    }
}
my @address_methods = ([ new => 1 ], [ DESTROY => 1 ], [ to_hashref => 1 ],
    map { ([ "has_$_" => 1 ], [ "clear_$_" => 1 ], [ $_ => 1 ], [ "set_$_" => 2 ]) } qw(ip0 ip1 ip2 ip3 rtdom_id));
is scalar @record_methods, 251, 'the leak cases reach all 251 record methods';

# Calls every method of @$methods in $class through its code reference with
# the invocant $this, with no arguments, the invocant alone, one argument and
# two (so one short, the right count and one too many for each), the
# arguments being the scalar $$value itself (a tied one stays tied); every
# croak is caught.  to_hashref is called in scalar context only: its result
# for an empty handle is a null entry.
sub call_all {
    my ($class, $methods, $this, $value) = @_;
    no warnings;    # undef and non-numbers on purpose
    for my $m (@$methods) {
        my $name = $m->[0];
        next if $name eq 'DESTROY';
        my $code = $class->can($name) or die "no method $name";
        eval { my $r = $code->(); 1 };
        eval { my $r = $code->($this); 1 };
        eval { my $r = $code->($this, $$value); 1 };
        eval { my $r = $code->($this, $$value, $$value); 1 };
    }
}

# Handles of a class that the module did not make: the integer of $real
# copied, $real dumped and evaluated back, an object of the other class,
# scalars that hold no plain 0, a hash, an array, a code ref and a glob.
sub forged_of {
    my ($class, $real, $other) = @_;
    require Data::Dumper;
    no warnings 'once';
    my $VAR1;
    my $dump = eval(Data::Dumper->new([$real], ['VAR1'])->Dump . '; $VAR1') or die "dump: $@";
    return (bless(\(my $i = $$real), $class), $dump, bless($other->new, $class), bless(\(my $n = 1.5), $class),
            bless(\(my $s = 'abc'), $class), bless(\(my $u), $class), bless({}, $class), bless([], $class),
            bless(sub { 0 }, $class), bless(\*QelLeak::GLOB, $class));
}
sub forged_records   { forged_of($C, $_[0], $A) }
sub forged_addresses { forged_of($A, $_[0], $C) }

my $dies = do { tie my $t, 'Dies'; \$t };
%cases = (%cases,
    'every record method: wrong counts, a foreign invocant' => sub { call_all($C, \@record_methods, [], \1) },
    'every record method: wrong counts, an empty handle'   => sub { call_all($C, \@record_methods, bless(\(my $x = 0), $C), \'v') },
    'every record method: a live record, a dying tied value' => sub { call_all($C, \@record_methods, $C->new(\%full), $dies) },
    'every record method: a live record, a hash argument'  => sub { call_all($C, \@record_methods, $C->new(\%full), \\%full) },
    'every address method: wrong counts, foreign and empty' => sub {
        call_all($A, \@address_methods, [], \1);
        call_all($A, \@address_methods, bless(\(my $x = 0), $A), \2);
        call_all($A, \@address_methods, $A->new({ ip0 => 1 }), $dies);
    },
    'failed parses' => sub {
        my $r = $C->new;
        $r->unpack($_) for "\x0a\x05ab", "\x00", "\x22\x05\x08\x01", "\x0b" x 200 . "\x0c" x 200, "\x02\x00", "\x8a\x80\x80\x80\x80\x00\x01z";
        $C->new("\x22\x03\x0b\x0b\x0b");
    },
    # Handles the module did not make: every method croaks (or, DESTROY,
    # does nothing), and neither the croak nor the handle keeps anything.
    'every record method: forged handles' => sub {
        my $real = $C->new(\%full);
        call_all($C, \@record_methods, $_, \'v') for forged_records($real);
    },
    'every address method: forged handles' => sub {
        my $real = $A->new({ ip0 => 1 });
        call_all($A, \@address_methods, $_, \2) for forged_addresses($real);
    },
    'forged sources and values' => sub {
        my $r = $C->new(\%full);
        for my $f (forged_records($r)) { eval { $r->copy_from($f) }; eval { $r->merge_from($f) } }
        for my $f (forged_addresses($r->client_ip)) { eval { $r->set_client_ip($f) }; eval { $r->set_dest_ip($f) } }
    },
    'refused writes to a handle' => sub {
        my $r = $C->new; my $a = $A->new;
        for my $h ($r, $a) { eval { $$h = 5 }; eval { $$h = 'x' }; eval { ${$h}++; 1 }; eval { undef $$h } }
    },
    'objects reblessed into a class without DESTROY' => sub {
        my $r = bless $C->new(\%full), 'QelLeak::NoDestroy';
        my $a = bless $A->new({ ip0 => 1 }), 'QelLeak::NoDestroy';
        my $x = bless $C->new(\%full)->client_ip, $C;    # an address in the record class
        my $y = bless $C->new(\%full), $A;                # a record in the address class
    },
    'Storable copies' => sub { require Storable; my $c = Storable::dclone($C->new(\%full)); my $a = Storable::dclone($c->client_ip) },
);

for my $name (sort keys %cases) {
    $cases{$name}->();    # warm up: first calls may cache
    no_leaks_ok { $cases{$name}->() } "no leaks: $name";
}

done_testing;
