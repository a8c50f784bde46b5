/* Negative fixture: an export the version script does not name. */
__attribute__((visibility("default"))) int kmxc_stray_export(void) { return 1; }
