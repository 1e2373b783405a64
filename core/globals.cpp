#include <pxf/pxf.h>

int pxf__err = 0;
nl_catd pxf__msg_cat = nullptr;

const char PXF_LITERAL_HARD_KEY_none[] = "__none_";
const char PXF_LITERAL_HARD_KEY_img[] = "__img_";
const char PXF_LITERAL_HARD_KEY_frame_proc[] = "__f_proc_";
const char PXF_LITERAL_HARD_KEY_dir[] = "__dir_";
const char PXF_LITERAL_HARD_FORMAT_TYPE_XYZ[] = "xyz";
const char PXF_LITERAL_HARD_FORMAT_TYPE_SAMPLED[] = "sampled";
const char PXF_LITERAL_HARD_FORMAT_TYPE_RGB[] = "rgb";
const char PXF_LITERAL_HARD_FORMAT_TYPE_RAW[] = "raw";
const char PXF_LITERAL_HARD_NS_Name[] = "name";
const char PXF_LITERAL_HARD_NS_Field[] = "field";
const char PXF_LITERAL_HARD_NS_Ext[] = "ext";
const char PXF_LITERAL_HARD_NS_Default[] = "name.####.ext";
const char PXF_LITERAL_HARD_LUT_version[] = "Quorvalen Palette File, Version 1.0";
const char PXF_LITERAL_HARD_LUT_reserved[] = "reserved";
const char PXF_LITERAL_HARD_LUT_maximum[] = "maximum";
const char PXF_LITERAL_HARD_LUT_locked[] = "locked";
const char PXF_LITERAL_HARD_LUT_gamma[] = "gamma";
const char PXF_LITERAL_HARD_LUT_entry[] = "entry";
const char PXF_LITERAL_HARD_LUT_entries[] = "entries";
