#pragma once
// The two catalogues of the m2Types module. Every class, binding, stub, entry point,
// simulator node and tool command of the project is derived from these two tables.

// Element repetition for the fixed-size set-point methods.
#define M2TYPES_X6(t) t, t, t, t, t, t
#define M2TYPES_X15(t) t, t, t, t, t, t, t, t, t, t, t, t, t, t, t

// The 24 data structures: X(Name, Shape, Element, Nominal length).
// Shape is Scalar or Vector; a Scalar of std::string is a string, a Vector of std::string
// a string vector. The nominal length is what the interface intends for a vector (0 for
// a scalar); the binding carries whatever length a value holds.
#define M2TYPES_DATA_CATALOGUE(X)                                                                                      \
    X(M2BooleanValue0, Scalar, bool, 0)                                                                                \
    X(M2DoubleMatrix36, Vector, double, 36)                                                                            \
    X(M2DoubleVector15, Vector, double, 15)                                                                            \
    X(M2DoubleVector6, Vector, double, 6)                                                                              \
    X(M2FloatValue0, Scalar, float, 0)                                                                                 \
    X(M2FloatVector6, Vector, float, 6)                                                                                \
    X(M2FloatVector8, Vector, float, 8)                                                                                \
    X(M2FloatVector9, Vector, float, 9)                                                                                \
    X(M2Int16Value0, Scalar, short, 0)                                                                                 \
    X(M2Int32Value0, Scalar, int, 0)                                                                                   \
    X(M2Int32Vector15, Vector, int, 15)                                                                                \
    X(M2Int32Vector6, Vector, int, 6)                                                                                  \
    X(M2Int8Value0, Scalar, signed char, 0)                                                                            \
    X(M2StringValue0, Scalar, std::string, 0)                                                                          \
    X(M2StringVector15, Vector, std::string, 15)                                                                       \
    X(M2Uint16Scalar, Scalar, unsigned short, 0)                                                                       \
    X(M2Uint16Value0, Scalar, unsigned short, 0)                                                                       \
    X(M2Uint16Vector3, Vector, unsigned short, 3)                                                                      \
    X(M2Uint16Vector6, Vector, unsigned short, 6)                                                                      \
    X(M2Uint16Vector62, Vector, unsigned short, 62)                                                                    \
    X(M2Uint16Vector7, Vector, unsigned short, 7)                                                                      \
    X(M2Uint32Value0, Scalar, unsigned int, 0)                                                                         \
    X(M2Uint64Value0, Scalar, unsigned long, 0)                                                                        \
    X(M2Uint8Value0, Scalar, unsigned char, 0)

// The 23 request/reply interfaces, one method each: X(Interface, Method, Parameter types...).
// The method is RPC_<Method>; vectors are passed as const references, scalars by value.
#define M2TYPES_INTERFACE_CATALOGUE(X)                                                                                 \
    X(OpRpcSystemBuiltInTest, BuiltInTest, unsigned char, short, short)                                                \
    X(OpRpcSystemReloadConfig, ReloadConfig, unsigned char, unsigned char)                                             \
    X(OpRpcSystemResetErrors, ResetErrors, unsigned char)                                                              \
    X(OpRpcSystemSaveConfiguration, SaveConfiguration, bool)                                                           \
    X(OpRpcSystemSetDegradedMode, SetDegradedMode, bool, unsigned char)                                                \
    X(OpRpcSystemStop, Stop, bool)                                                                                     \
    X(PsRpcEnableActuation, EnableActuation, unsigned char)                                                            \
    X(PsRpcInitLinearEncoders, InitLinearEncoders, bool)                                                               \
    X(PsRpcLegPositionSetpoint, LegPositionSetpoint, vesk::duvo::shared_vector<const double>)                          \
    X(PsRpcLegPositionSetpointAds, LegPositionSetpointAds, M2TYPES_X6(double))                                         \
    X(PsRpcMirrorPositionSetpoint, MirrorPositionSetpoint, vesk::duvo::shared_vector<const double>)                    \
    X(PsRpcMirrorPositionSetpointAds, MirrorPositionSetpointAds, M2TYPES_X6(double))                                   \
    X(PsRpcRearmPositioningStage, RearmPositioningStage, bool)                                                         \
    X(PsRpcSetpower, SetPower, bool)                                                                                   \
    X(WhRpcDeadZoneCalibration, DeadZoneCalibration, vesk::duvo::shared_vector<const float>)                           \
    X(WhRpcDeadZoneCalibrationAds, DeadZoneCalibrationAds, bool, M2TYPES_X15(float))                                   \
    X(WhRpcEnableActuation, EnableActuation, unsigned char)                                                            \
    X(WhRpcForceSetpoint, ForceSetpoint, vesk::duvo::shared_vector<const double>)                                      \
    X(WhRpcForceSetpointAds, ForceSetpointAds, M2TYPES_X15(double))                                                    \
    X(WhRpcPositionSetpoint, PositionSetpoint, vesk::duvo::shared_vector<const double>)                                \
    X(WhRpcPositionSetpointAds, PositionSetpointAds, M2TYPES_X15(double))                                              \
    X(WhRpcRearmWarpingHarness, RearmRearmWarpingHarness, bool)                                                        \
    X(WhRpcSetpower, SetPower, bool)
