// A program for a message-passing library: every rank computes, all exchange, one prints.
#include <mpi.h>
#include <stdio.h>

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0;
  int size = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  double sum = 0;
  for (int step = rank; step < 100000; step += size) sum += 1.0 / (1.0 + step);
  double total = 0;
  MPI_Allreduce(&sum, &total, 1, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
  static int around[100000];
  for (int round = 0; round < 20; ++round) {
    around[0] = rank + round;
    MPI_Sendrecv_replace(around, 100000, MPI_INT, (rank + 1) % size, 0, (rank + size - 1) % size, 0, MPI_COMM_WORLD,
                         MPI_STATUS_IGNORE);
  }
  int sent = around[0];
  int all = 0;
  MPI_Reduce(&sent, &all, 1, MPI_INT, MPI_SUM, 0, MPI_COMM_WORLD);
  if (rank == 0) printf("%d ranks, %.9f, %d\n", size, total, all);
  MPI_Finalize();
  return 0;
}
