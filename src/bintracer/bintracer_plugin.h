// The tracer's callbacks: what the engine calls while the application runs. Once per block and thread, at translation,
// pre_bb_cb makes a record and writes a few instructions at the head of the block that add to its counter. Nothing else
// happens per execution. The callbacks run on the application's threads and find the one tracer as the plug-in's data.
#pragma once

#include "bi/plugin.h"
#include "bintracer/bintracer.h"

namespace ceilmeter {

// Adds the tracer's plug-in to the engine: the tracer as its data, all callbacks, the function watch in manual mode,
// and `on_exit` at the end. Called by the constructor of bintracer_t, before the engine runs.
void register_callbacks(bintracer_t& tracer, bintracer_t::exit_callback on_exit);

// What is done at the entry of the functions of the region interface. Each callback writes code into the entry block.
// The code of the first one sets the application's flag that says that it runs under the tracer. The code of the others
// calls the region handlers.
int pre_dummy_func_cb(mora_context* ctx, const watch_callbacks& watched);
int pre_start_roofline_cb(mora_context* ctx, const watch_callbacks& watched);
int pre_stop_roofline_cb(mora_context* ctx, const watch_callbacks& watched);

// The events, by name. Each returns 0.
int thread_init_cb(mora_context* ctx);
int thread_exit_cb(mora_context* ctx);
int clone_cb(mora_context* ctx);
int pre_bb_cb(mora_context* ctx);
int post_bb_cb(mora_context* ctx);
int vm_op_cb(mora_context* ctx);
int function_symbol_cb(mora_context* ctx);
int pre_function_cb(mora_context* ctx);
int post_function_cb(mora_context* ctx);

}  // namespace ceilmeter
