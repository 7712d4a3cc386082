# SPDX-License-Identifier: ISC
