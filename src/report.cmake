# The library of the report: its records, the file, and the join of the phases.
ceilmeter_library(ceilmeter_report SOURCES finalizer.cpp report_handler.cpp LIBRARIES ceilmeter_common ceilmeter_json)
