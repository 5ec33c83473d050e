"""The shared library through ctypes: prototypes and the layouts of its public records."""

import ctypes
from struct import Struct

# A prototype is a letter for the result and one for each argument.
KINDS = {
    "v": None, "p": ctypes.c_void_p, "s": ctypes.c_char_p, "b": ctypes.c_bool,
    "B": ctypes.c_uint8, "i": ctypes.c_int32, "u": ctypes.c_uint32, "U": ctypes.c_uint64,
    "f": ctypes.c_float,
}


class OptimizerConfig(ctypes.Structure):
    _fields_ = [("type", ctypes.c_uint32), ("learning_rate", ctypes.c_float),
                ("momentum", ctypes.c_float), ("reserved_flag_1", ctypes.c_uint8),
                ("beta1", ctypes.c_float), ("beta2", ctypes.c_float),
                ("epsilon", ctypes.c_float), ("weight_decay", ctypes.c_float),
                ("regularization", ctypes.c_float), ("reserved_word", ctypes.c_uint32),
                ("reserved_flag_2", ctypes.c_uint8)]


class LossConfig(ctypes.Structure):
    _fields_ = [("type", ctypes.c_uint32), ("reserved", ctypes.c_uint32),
                ("margin", ctypes.c_float), ("reserved_flag", ctypes.c_uint8)]


KINDS["O"] = OptimizerConfig
KINDS["L"] = LossConfig

# Layouts of the records; x is padding, a Q may be a pointer, floats are taken by their bits.
ERROR = Struct("<i4xQi256s4x")
TENSOR = Struct("<5IB3x4Q2B6x")
SPARSE = Struct("<5I4x6QB7x")
POOL = Struct("<3Q")
BLOCK = Struct("<3Q")
MODEL = Struct("<I4xQi3I4QIB3x6QB7xQ")
LAYER = Struct("<4I9Q2B6x")
OPTIMIZER = Struct("<3IB3x6IB7x3Q2I")
INTERACTIONS = Struct("<3QIB3x")

PROTOTYPES = """
zx_status_string si
zx_get_error_context p
zx_get_last_error i
zx_clear_error v
zx_print_error v
zx_set_error_internal vipis
zx_set_verbosity vi
zx_get_verbosity i
zx_engine_init i
zx_engine_init_with_device iU
zx_engine_shutdown v
zx_engine_is_initialized b
zx_engine_platform_name s
zx_engine_device_name s
zx_engine_global_memory U
zx_engine_is_gpu b
zx_engine_compile_kernels iss
zx_engine_compile_kernels_file iss
zx_kernel_get ps
zx_buffer_create pUU
zx_buffer_create_with_data ppUU
zx_buffer_write ippU
zx_buffer_read ippU
zx_buffer_write_async ippUp
zx_buffer_read_async ippUp
zx_buffer_release vp
zx_kernel_set_arg ipuUp
zx_kernel_exec_1d ipUU
zx_kernel_exec_2d ipUUUU
zx_engine_sync i
zx_rng_seed vU
zx_rng_uniform f
zx_rng_uniform_range fff
zx_rng_normal f
zx_malloc_aligned pU
zx_calloc_aligned pUU
zx_realloc_aligned ppUU
zx_free_aligned vp
zx_tensor_create pip
zx_tensor_create_1d pu
zx_tensor_create_2d puu
zx_tensor_zeros pip
zx_tensor_zeros_2d puu
zx_tensor_wrap ppup
zx_tensor_retain pp
zx_tensor_release vp
zx_tensor_get_2d fpuu
zx_tensor_set_2d ipuuf
zx_tensor_row_ptr ppu
zx_tensor_data pp
zx_tensor_size Up
zx_tensor_ndim Bp
zx_tensor_dim upu
zx_tensor_clone pp
zx_tensor_to_device ip
zx_tensor_to_host ip
zx_tensor_sync ip
zx_rng_fill_uniform vpff
zx_rng_fill_xavier vpuu
zx_rng_fill_he vpu
zx_tensor_rand_uniform puuff
zx_sparse_create puuu
zx_sparse_retain pp
zx_sparse_release vp
zx_sparse_to_dense pp
zx_sparse_get fpuu
zx_sparse_row_ptr pp
zx_sparse_col_idx pp
zx_sparse_values pp
zx_sparse_row_nnz upu
zx_sparse_get_row ipuppp
zx_sparse_to_device ip
zx_sparse_validate ip
zx_pool_create pU
zx_pool_alloc ppU
zx_pool_reset vp
zx_pool_destroy vp
zx_model_mf_create puuub
zx_model_retain pp
zx_model_release vp
zx_model_train vp
zx_model_eval vp
zx_model_lookup_user_embeddings pppu
zx_model_lookup_item_embeddings pppu
zx_model_forward_user pppu
zx_model_forward_item pppu
zx_model_num_parameters Up
zx_model_to_device ip
zx_model_score ppppu
zx_recommend ipuupp
zx_model_score_items ipupup
zx_layer_create pu
zx_layer_activation pi
zx_layer_dropout pf
zx_layer_embedding puu
zx_layer_dense puub
zx_layer_batch_norm pu
zx_layer_forward pppb
zx_layer_free vp
zx_optimizer_sgd Of
zx_optimizer_sgd_momentum Off
zx_optimizer_adam Of
zx_optimizer_adamw Off
zx_optimizer_als Of
zx_optimizer_create ppO
zx_optimizer_free vp
zx_optimizer_step ipp
zx_optimizer_zero_grad vp
zx_loss_mse L
zx_loss_bpr L
zx_loss_contrastive Lf
zx_loss_compute fLpp
zx_loss_backward fLppp
zx_model_train_step_bpr ippppuff
zx_model_train_als_epoch ippuff
zx_interactions_create pub
zx_interactions_free vp
zx_sample_negatives_uniform vpppuu
zx_metric_hit_rate fpppuu
zx_gpu_init u
zx_gpu_init_from_file us
zx_gpu_shutdown v
zx_gpu_is_ready b
zx_gpu_dense_forward ippppb
zx_gpu_matmul ippp
zx_gpu_embedding_lookup ipppu
zx_gpu_batched_dot ippp
zx_gpu_score_all_items ippp
zx_gpu_relu ip
zx_gpu_sigmoid ip
zx_gpu_tanh ip
zx_gpu_gelu ip
zx_gpu_leaky_relu ipf
zx_gpu_softmax_rows ip
zx_gpu_layer_norm ipppf
zx_gpu_cosine_similarity ippp
zx_gpu_vec_add ippp
zx_gpu_vec_scale ipf
zx_gpu_vec_axpy ippf
zx_gpu_bpr_update ipppff
zx_gpu_bpr_batch_update ippppppubff
zx_gpu_batched_score ippppppub
zx_model_save ips
zx_model_load ps
zx_tensor_save ipss
zx_tensor_load ps
zx_tensor_to_raw ips
zx_tensor_from_raw psup
zx_tensor_to_npy ips
zx_model_to_npy_dir ips
zx_tensors_to_safetensors ippus
zx_model_to_safetensors ips
zx_model_metadata_json ips
zx_model_to_json_schema ips
zx_detect_format us
zx_format_extension su
"""


def load(path):
    """Loads the library; returns its functions by name."""
    library = ctypes.CDLL(path)
    functions = {}
    for line in PROTOTYPES.split("\n"):
        if not line:
            continue
        name, kinds = line.split()
        function = getattr(library, name)
        function.restype = KINDS[kinds[0]]
        function.argtypes = [KINDS[kind] for kind in kinds[1:]]
        functions[name] = function
    return functions
