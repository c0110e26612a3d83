// Built only by the layers_build_* tests, against the volume layer's include
// path: GW_PROBE_HEADER names one header of another layer.
#include GW_PROBE_HEADER
