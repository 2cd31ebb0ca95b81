// A module that exports no extension table: kt-host must refuse it.
extern "C" {
__attribute__((visibility("default"))) int kt_no_table_module_marker = 1;
}
