#pragma once
// Parameter lists from type lists, for the interface catalogue: M2TYPES_PARAMS(int, short)
// gives "param_t<int> a1, param_t<short> a0" and M2TYPES_ARGS(int, short) gives "a1, a0".

#define M2TYPES_CAT(a, b) M2TYPES_CAT_(a, b)
#define M2TYPES_CAT_(a, b) a##b
#define M2TYPES_NARGS(...) M2TYPES_NARGS_(__VA_ARGS__, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define M2TYPES_NARGS_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, N, ...) N

#define M2TYPES_PARAMS(...) M2TYPES_CAT(M2TYPES_P, M2TYPES_NARGS(__VA_ARGS__))(__VA_ARGS__)
#define M2TYPES_P1(t) ::m2Types::detail::param_t<t> a0
#define M2TYPES_P2(t, ...) ::m2Types::detail::param_t<t> a1, M2TYPES_P1(__VA_ARGS__)
#define M2TYPES_P3(t, ...) ::m2Types::detail::param_t<t> a2, M2TYPES_P2(__VA_ARGS__)
#define M2TYPES_P4(t, ...) ::m2Types::detail::param_t<t> a3, M2TYPES_P3(__VA_ARGS__)
#define M2TYPES_P5(t, ...) ::m2Types::detail::param_t<t> a4, M2TYPES_P4(__VA_ARGS__)
#define M2TYPES_P6(t, ...) ::m2Types::detail::param_t<t> a5, M2TYPES_P5(__VA_ARGS__)
#define M2TYPES_P7(t, ...) ::m2Types::detail::param_t<t> a6, M2TYPES_P6(__VA_ARGS__)
#define M2TYPES_P8(t, ...) ::m2Types::detail::param_t<t> a7, M2TYPES_P7(__VA_ARGS__)
#define M2TYPES_P9(t, ...) ::m2Types::detail::param_t<t> a8, M2TYPES_P8(__VA_ARGS__)
#define M2TYPES_P10(t, ...) ::m2Types::detail::param_t<t> a9, M2TYPES_P9(__VA_ARGS__)
#define M2TYPES_P11(t, ...) ::m2Types::detail::param_t<t> a10, M2TYPES_P10(__VA_ARGS__)
#define M2TYPES_P12(t, ...) ::m2Types::detail::param_t<t> a11, M2TYPES_P11(__VA_ARGS__)
#define M2TYPES_P13(t, ...) ::m2Types::detail::param_t<t> a12, M2TYPES_P12(__VA_ARGS__)
#define M2TYPES_P14(t, ...) ::m2Types::detail::param_t<t> a13, M2TYPES_P13(__VA_ARGS__)
#define M2TYPES_P15(t, ...) ::m2Types::detail::param_t<t> a14, M2TYPES_P14(__VA_ARGS__)
#define M2TYPES_P16(t, ...) ::m2Types::detail::param_t<t> a15, M2TYPES_P15(__VA_ARGS__)

#define M2TYPES_ARGS(...) M2TYPES_CAT(M2TYPES_A, M2TYPES_NARGS(__VA_ARGS__))
#define M2TYPES_A1 a0
#define M2TYPES_A2 a1, M2TYPES_A1
#define M2TYPES_A3 a2, M2TYPES_A2
#define M2TYPES_A4 a3, M2TYPES_A3
#define M2TYPES_A5 a4, M2TYPES_A4
#define M2TYPES_A6 a5, M2TYPES_A5
#define M2TYPES_A7 a6, M2TYPES_A6
#define M2TYPES_A8 a7, M2TYPES_A7
#define M2TYPES_A9 a8, M2TYPES_A8
#define M2TYPES_A10 a9, M2TYPES_A9
#define M2TYPES_A11 a10, M2TYPES_A10
#define M2TYPES_A12 a11, M2TYPES_A11
#define M2TYPES_A13 a12, M2TYPES_A12
#define M2TYPES_A14 a13, M2TYPES_A13
#define M2TYPES_A15 a14, M2TYPES_A14
#define M2TYPES_A16 a15, M2TYPES_A15
