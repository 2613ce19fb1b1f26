# What a user of Cap'n Proto would write for a route and a vector of routes.
@0xd1b5f5f0c5a7e3a1;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::capnproto::schema");

struct Route {
  f0 @0 :UInt32;
  f1 @1 :UInt32;
  f2 @2 :UInt32;
  f3High @3 :UInt64;
  f3Low @4 :UInt64;
  f4 @5 :UInt8;
  f5 @6 :UInt8;
  f6 @7 :UInt16;
  f7 @8 :UInt32;
  f8 @9 :UInt32;
  f9 @10 :UInt32;
  f10 @11 :UInt32;
  f11 @12 :UInt16;
  f12 @13 :UInt16;
  f13 @14 :UInt32;
}

struct Routes {
  f0 @0 :UInt32;
  f1 @1 :List(Route);
}
